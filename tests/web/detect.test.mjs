// Detect fields in the editor's page:
//
//   node tests/web/detect.test.mjs --qfforms BIN --form FLAT.pdf --artifacts DIR
//
// On a copy of FLAT.pdf (a real form without its fields): Detect fields proposes outlines
// over the page and a list, and changes nothing; a click on an outline and a tick in the
// list reject two, a name and a kind are changed, and Accept makes the others fields in one
// undo step, named after their labels (the edited one as typed, the changed one of its new
// kind), which one undo takes back. A second detection over the fields made proposes none
// of them again. DIR gets screenshots.

import assert from 'node:assert/strict';
import fs from 'node:fs';
import path from 'node:path';
import {after, before, test} from 'node:test';
import {launch, settled as settledIn, setUp, startEditor, stateOf} from './harness.mjs';

const {qfforms, artifacts, folder, file} = setUp('flat.pdf');

let editor, browser, page;
const errors = [];

before(async () => {
  editor = await startEditor(qfforms, file, folder);
  browser = await launch();
  page = await (await browser.newContext({viewport: {width: 1280, height: 900}})).newPage();
  page.on('pageerror', (e) => errors.push(e.message));
  await page.goto(editor.url);
  await page.waitForSelector('#detect');
  await settled();
});

after(async () => {
  await browser?.close();
  if (editor?.proc.exitCode === null) editor.proc.kill('SIGKILL');
  fs.rmSync(folder, {recursive: true, force: true});
});

const settled = () => settledIn(page);
const state = () => stateOf(page);
const shot = (name) => page.screenshot({path: path.join(artifacts, name)});
const kindOf = async (name) =>
  (await page.evaluate(async () => {
    const token = new URLSearchParams(location.search).get('token');
    return (await fetch('/api/fields', {headers: {'X-QF-Token': token}})).json();
  })).fields.find((f) => f.name === name && f.widgets.length)?.kind;
// The fields with a widget on a page (a field whose widgets an undo took out stays in the
// open document, unwritten).
const fieldNames = async () =>
  (await (await page.evaluate(async () => {
    const token = new URLSearchParams(location.search).get('token');
    return (await fetch('/api/fields', {headers: {'X-QF-Token': token}})).json();
  })).fields).filter((f) => f.widgets.length).map((f) => f.name);

test('proposals are shown, chosen, renamed and accepted as one undo step', async () => {
  const before = await state();
  await page.click('#detect');
  await page.waitForSelector('#detect-panel li');
  await settled();
  const outlines = await page.locator('.detect-outline').count();
  const rows = await page.locator('#detect-panel li').count();
  assert.ok(rows >= 20, `${rows} proposals`);
  assert.equal(outlines, rows);
  // Proposing changes nothing.
  assert.deepEqual((await state()).undo, before.undo);
  assert.deepEqual(await fieldNames(), []);
  const names = await page.locator('#detect-panel li input.name').evaluateAll(
    (e) => e.map((i) => i.value));
  assert.ok(names.includes('high_school_diploma'), names.join());
  assert.ok(names.includes('employee_signature'), names.join());
  await shot('detect-proposed.png');

  // Reject the first by its outline and the second in the list; rename the third.
  await page.locator('.detect-outline[data-index="0"]').click();
  await page.locator('#detect-panel li[data-index="1"] input[type=checkbox]').uncheck();
  assert.ok(await page.locator('.detect-outline[data-index="0"]').evaluate(
    (e) => e.hasAttribute('data-rejected')));
  const third = page.locator('#detect-panel li[data-index="2"] input.name');
  await third.fill('given_name');
  // The fourth, a text field, is made a signature field.
  assert.equal(await page.locator('#detect-panel li[data-index="3"] select.kind').inputValue(), 'text');
  await page.selectOption('#detect-panel li[data-index="3"] select.kind', 'signature');
  const signed = names[3];
  const rejected = [names[0], names[1]].filter((n) => n);
  await page.click('#detect-panel button.accept');
  await settled();
  await page.waitForSelector('#detect-panel', {state: 'hidden'});
  assert.equal(await page.locator('.detect-outline').count(), 0);

  const after = await state();
  assert.equal(after.undo.length, before.undo.length + 1);
  assert.equal(after.undo.at(-1), 'DetectFields');
  const made = await fieldNames();
  const accepted = names.slice(2).map((n, i) => (i === 0 ? 'given_name' : n)).filter((n) => n);
  for (const n of accepted) assert.ok(made.includes(n), `${n} in ${made.join()}`);
  assert.equal(await kindOf(signed), 'signature');
  for (const n of rejected) {
    if (!accepted.includes(n)) assert.ok(!made.includes(n), `${n} was rejected`);
  }
  await shot('detect-accepted.png');

  // Detecting again proposes nothing over the fields made.
  await page.click('#detect');
  await page.waitForSelector('#detect-panel:not([hidden])');
  await settled();
  assert.equal(await page.locator('#detect-panel li').count(), 2);
  await page.click('#detect-panel button.reject');

  await page.click('#undo');
  await settled();
  assert.deepEqual(await fieldNames(), []);
  assert.deepEqual(errors, []);
});
