// The prompt for a password, shown while the server keeps the document locked: the
// document's password when it does not open without one, its owner password when its
// permissions do not allow changing its form. The password goes once to the server, over
// the same authenticated API as every other request, and the page keeps no copy.

import {post} from './api.js';
import {t} from './texts.js';

const dialog = document.getElementById('password');
const input = document.getElementById('password-input');
const why = document.getElementById('password-why');
const message = document.getElementById('password-message');
let sending = false;

// Shows the prompt for a locked state: state.locked is "password" or "owner".
export function askPassword(state) {
  why.textContent = t(state.locked === 'owner' ? 'ownerNeeded' : 'passwordNeeded',
      state.document.name);
  if (!dialog.open) {
    message.textContent = '';
    dialog.showModal();
  }
  input.focus();
}

export function closePasswordPrompt() {
  if (dialog.open) dialog.close();
  input.value = '';
  message.textContent = '';
}

// Nothing but the right password closes the prompt: there is no document behind it yet.
dialog.addEventListener('cancel', (ev) => ev.preventDefault());

dialog.querySelector('form').addEventListener('submit', async (ev) => {
  ev.preventDefault();
  if (sending) return;
  sending = true;
  message.textContent = '';
  const answer = await post('/api/password', {password: input.value});
  sending = false;
  input.value = '';
  if (answer.ok) return; // the state that came with the answer has closed the prompt
  if (answer.body.wrong) message.textContent = t('passwordWrong');
  else if (answer.status === 422) message.textContent = t('passwordNotOwner');
  else message.textContent = answer.body.error ?? `${answer.status}`;
  input.focus();
});
