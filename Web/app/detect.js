// Detect fields: the host proposes the fields the page in sight draws (boxes, underlines,
// squares, circles), shown as outlines over the page and as a list in the panel, each
// with its kind and the name taken from its label. The person unticks the ones not wanted
// (in the list or by clicking the outline), edits names and kinds, and accepts: the
// chosen ones become fields as the creation tools make them, in one undo step. Nothing
// changes in the document before that.

import {post} from './api.js';
import {addTexts, t, translate} from './texts.js';

addTexts({
  en: {
    detect: 'Detect fields', detectHint: 'Propose fields over the boxes and lines of the page in sight',
    detectTitle: 'Detected fields', detectAccept: 'Accept', detectReject: 'Reject all',
    detectCount: '{0} proposed, {1} chosen', detectNone: 'No fields proposed.',
    detectMade: '{0} fields made.',
    kindtext: 'Text', kindcheck: 'Check box', kindradio: 'Radio button', kindsignature: 'Signature',
    detectComb: 'comb of {0}', detectMultiline: 'multiline', detectKind: 'kind of field',
  },
  ja: {
    detect: 'フィールドを検出', detectHint: '表示中のページの枠と線からフィールドを提案します',
    detectTitle: '検出したフィールド', detectAccept: '確定', detectReject: 'すべて却下',
    detectCount: '候補 {0} 件、選択 {1} 件', detectNone: '候補はありません。',
    detectMade: '{0} 個のフィールドを作成しました。',
    kindtext: 'テキスト', kindcheck: 'チェックボックス', kindradio: 'ラジオボタン',
    kindsignature: '署名', detectComb: '{0} 文字のコーム', detectMultiline: '複数行',
    detectKind: 'フィールドの種類',
  },
});

const view = document.getElementById('view');
let found = null; // {page, proposals, notes}, while the person chooses
let chosen = []; // per proposal: {take, name}

// The page most in sight: the one under the middle of the scroller.
function pageInSight() {
  const scroller = document.getElementById('scroller').getBoundingClientRect();
  const y = scroller.top + scroller.height / 2;
  let best = 0;
  let distance = Infinity;
  for (const e of view.querySelectorAll('.page')) {
    const r = e.getBoundingClientRect();
    const d = y < r.top ? r.top - y : y > r.bottom ? y - r.bottom : 0;
    if (d < distance) [best, distance] = [Number(e.dataset.page), d];
  }
  return best;
}

function section() {
  let s = document.getElementById('detect-panel');
  if (!s) {
    s = document.createElement('section');
    s.id = 'detect-panel';
    s.hidden = true;
    document.getElementById('panel').prepend(s);
  }
  return s;
}

function clearOutlines() {
  for (const e of view.querySelectorAll('.detect-outline')) e.remove();
}

function close() {
  found = null;
  chosen = [];
  clearOutlines();
  section().hidden = true;
  section().replaceChildren();
}

function kindWords(p) {
  const words = [t(`kind${p.kind}`)];
  if (p.comb) words.push(t('detectComb', p.maxLength));
  if (p.multiline) words.push(t('detectMultiline'));
  return words.join(', ');
}

function countLine() {
  return t('detectCount', found.proposals.length, chosen.filter((c) => c.take).length);
}

function setTaken(i, take) {
  chosen[i].take = take;
  const row = section().querySelector(`li[data-index="${i}"]`);
  if (row) row.querySelector('input[type=checkbox]').checked = take;
  view.querySelector(`.detect-outline[data-index="${i}"]`)?.toggleAttribute('data-rejected', !take);
  section().querySelector('.count').textContent = countLine();
  section().querySelector('.accept').disabled = !chosen.some((c) => c.take);
}

function drawOutlines() {
  clearOutlines();
  const pageElement = view.querySelector(`.page[data-page="${found.page}"]`);
  if (!pageElement) return;
  for (const p of found.proposals) {
    const box = document.createElement('div');
    box.className = 'detect-outline';
    box.dataset.index = p.index;
    box.dataset.kind = chosen[p.index].kind;
    box.title = `${chosen[p.index].name || kindWords(p)} — ${p.label}`;
    const [x, y, w, h] = p.view;
    Object.assign(box.style, {left: `${x}px`, top: `${y}px`, width: `${w}px`, height: `${h}px`});
    box.toggleAttribute('data-rejected', !chosen[p.index].take);
    box.addEventListener('pointerdown', (ev) => {
      ev.stopPropagation();
      ev.preventDefault();
      setTaken(p.index, !chosen[p.index].take);
    });
    pageElement.append(box);
  }
}

function drawList() {
  const s = section();
  s.hidden = false;
  const title = document.createElement('h3');
  title.dataset.text = 'detectTitle';
  const count = document.createElement('p');
  count.className = 'count';
  const notes = document.createElement('p');
  notes.className = 'notes';
  notes.textContent = found.notes.join(' ');
  const list = document.createElement('ol');
  for (const p of found.proposals) {
    const row = document.createElement('li');
    row.dataset.index = p.index;
    const take = document.createElement('input');
    take.type = 'checkbox';
    take.checked = chosen[p.index].take;
    take.setAttribute('aria-label', p.label || kindWords(p));
    take.addEventListener('change', () => setTaken(p.index, take.checked));
    const kind = document.createElement('select');
    kind.className = 'kind';
    for (const k of ['text', 'check', 'radio', 'signature']) {
      const option = new Option(k === p.kind ? kindWords(p) : t(`kind${k}`), k);
      kind.append(option);
    }
    kind.value = chosen[p.index].kind;
    kind.setAttribute('aria-label', t('detectKind'));
    kind.addEventListener('change', () => {
      chosen[p.index].kind = kind.value;
      const outline = view.querySelector(`.detect-outline[data-index="${p.index}"]`);
      if (outline) outline.dataset.kind = kind.value;
    });
    const name = document.createElement('input');
    name.type = 'text';
    name.className = 'name';
    name.value = chosen[p.index].name;
    name.placeholder = kindWords(p);
    name.addEventListener('input', () => {
      chosen[p.index].name = name.value;
      // The buttons of a radio group share their name.
      if (p.group !== undefined) {
        for (const q of found.proposals) {
          if (q.group === p.group && q.index !== p.index) {
            chosen[q.index].name = name.value;
            const other = s.querySelector(`li[data-index="${q.index}"] input.name`);
            if (other) other.value = name.value;
          }
        }
      }
    });
    row.addEventListener('pointerenter', () =>
      view.querySelector(`.detect-outline[data-index="${p.index}"]`)?.setAttribute('data-hot', ''));
    row.addEventListener('pointerleave', () =>
      view.querySelector(`.detect-outline[data-index="${p.index}"]`)?.removeAttribute('data-hot'));
    row.append(take, kind, name);
    list.append(row);
  }
  const buttons = document.createElement('div');
  buttons.className = 'buttons';
  const accept = document.createElement('button');
  accept.type = 'button';
  accept.className = 'accept';
  accept.dataset.text = 'detectAccept';
  accept.addEventListener('click', acceptChosen);
  const reject = document.createElement('button');
  reject.type = 'button';
  reject.className = 'reject';
  reject.dataset.text = 'detectReject';
  reject.addEventListener('click', close);
  buttons.append(accept, reject);
  s.replaceChildren(title, count, notes, list, buttons);
  translate(s);
  count.textContent = found.proposals.length ? countLine() : t('detectNone');
  accept.disabled = !chosen.some((c) => c.take);
}

async function detect() {
  const page = pageInSight();
  const answer = await post('/api/detect', {page});
  if (!answer.ok) return;
  found = answer.body;
  layoutKey = `${view.style.width} ${view.style.height}`;
  chosen = found.proposals.map((p) => ({take: true, name: p.name, kind: p.kind}));
  drawList();
  drawOutlines();
}

async function acceptChosen() {
  const accept = [];
  const names = {};
  const kinds = {};
  found.proposals.forEach((p, i) => {
    if (!chosen[i].take) return;
    accept.push(i);
    if (chosen[i].name !== p.name) names[i] = chosen[i].name;
    if (chosen[i].kind !== p.kind) kinds[i] = chosen[i].kind;
  });
  const answer = await post('/api/detect/accept', {page: found.page, accept, names, kinds});
  if (!answer.ok) return;
  close();
  document.getElementById('notice').textContent = t('detectMade', answer.body.fields.length);
}

// The outlines follow the page when the view is zoomed or turned: proposed again (the
// host answers at once and the same), the person's choices kept.
let layoutKey = '';
new MutationObserver(async () => {
  const key = `${view.style.width} ${view.style.height}`;
  if (!found || key === layoutKey) return;
  layoutKey = key;
  const before = found;
  const answer = await post('/api/detect', {page: before.page});
  if (!answer.ok || found !== before) return;
  if (answer.body.proposals.length !== before.proposals.length) {
    close();
    return;
  }
  found = answer.body;
  drawOutlines();
}).observe(view, {attributes: true, attributeFilter: ['style']});

function setup() {
  const place = document.getElementById('place-multiple');
  const button = document.createElement('button');
  button.type = 'button';
  button.id = 'detect';
  button.dataset.text = 'detect';
  button.dataset.title = 'detectHint';
  button.addEventListener('click', () => {
    close();
    detect();
  });
  place.after(button);
  translate(button.parentElement);
}

setup();
