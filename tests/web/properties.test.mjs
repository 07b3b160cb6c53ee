// The field-property panel of the editor's page in a real browser against `qfforms edit`:
//
//   node tests/web/properties.test.mjs --qfforms BIN --form FIELDS.pdf --artifacts DIR
//
// FIELDS.pdf holds two text fields, a check box, a radio group of two buttons, a combo box
// and a push button (tests/web/fields.json). For each group of the panel a property is set
// with its control, undone and redone; bad values are answered with their sentence and the
// document stays as it was; the labels and a refusal come in Japanese too; the saved file
// holds every change as pypdf reads it and draws in poppler and MuPDF. DIR receives the
// panel's pictures in both languages.

import assert from 'node:assert/strict';
import {execFileSync} from 'node:child_process';
import fs from 'node:fs';
import path from 'node:path';
import {after, before, describe, test} from 'node:test';
import {launch, settled as settledIn, setUp, startEditor} from './harness.mjs';

const {qfforms, artifacts, folder, file: form} = setUp('fields.pdf');

let editor; // {proc, port, token}
let browser;
let page;
const pageErrors = [];

async function api(route, body) {
  const r = await fetch(`http://127.0.0.1:${editor.port}${route}`, {
    method: body === undefined ? 'GET' : 'POST',
    headers: {'X-QF-Token': editor.token},
    body: body === undefined ? undefined : JSON.stringify(body),
  });
  return route.endsWith('.pdf') ? Buffer.from(await r.arrayBuffer()) : {status: r.status,
    ...(await r.json())};
}

const state = async () => (await api('/api/state')).state;
const rowValue = async (id) => (await state()).properties?.rows.find((r) => r.id === id)?.value;
const shot = (name) => page.screenshot({path: path.join(artifacts, name)});

const settled = () => settledIn(page);

// Selects the widget of field (its index among the field's widgets) with a click.
async function select(field, index = 0) {
  await settled();
  const rects = page.locator(`.page[data-page="0"] g.annotations rect.widget[data-field="${field}"]`);
  // A press takes the message bar away, which moves the pages up under the pointer: the
  // Select button takes it away first.
  if (await page.textContent('#message')) {
    await page.click('[data-tool=""]');
    await settled();
  }
  const box = await rects.nth(index).boundingBox();
  await page.mouse.click(box.x + 4, box.y + box.height / 2);
  await settled();
  assert.equal((await state()).selection?.field, field);
}

const row = (id) => page.locator(`#field-properties [data-id="${id}"]`);

// What each group's control does, on one field's widget: the value it leaves.
const edits = [
  ['Text1', 'required', (r) => r.locator('input').check(), true],
  ['Text1', 'tooltip', (r) => r.locator('input').fill('Your name').then(() =>
    r.locator('input').press('Enter')), 'Your name'],
  ['Text1', 'value', (r) => r.locator('input').fill('Hello').then(() =>
    r.locator('input').press('Enter')), 'Hello'],
  ['Text1', 'multiline', (r) => r.locator('input').check(), true],
  ['Text1', 'maxLength', (r) => r.locator('input').fill('10').then(() =>
    r.locator('input').press('Enter')), 10],
  ['Text1', 'fontSize', (r) => r.locator('input').fill('14').then(() =>
    r.locator('input').press('Tab')), 14],
  ['Text1', 'borderColor', (r) => r.locator('input[type=color]').fill('#ff0000'), '#ff0000'],
  ['Text1', 'backgroundColor', (r) => r.locator('input[type=checkbox]').check(), 'none'],
  ['Text1', 'borderStyle', (r) => r.locator('select').selectOption({label: 'Dashed'}), 'dashed'],
  ['Text1', 'alignment', (r) => r.locator('select').selectOption({label: 'Centre'}), 'center'],
  ['Text1', 'visibility', (r) => r.locator('select').selectOption({label:
    'Visible but does not print'}), 'noPrint'],
  ['CheckBox1', 'glyph', (r) => r.locator('select').selectOption({label: 'Star'}), 'star'],
  ['CheckBox1', 'exportValue', (r) => r.locator('input').fill('Agree').then(() =>
    r.locator('input').press('Enter')), 'Agree'],
  ['RadioGroup1', 'radiosInUnison', (r) => r.locator('input').check(), true],
  ['ComboBox1', 'editable', (r) => r.locator('input').check(), true],
  ['Button1', 'caption', (r) => r.locator('input').fill('Send').then(() =>
    r.locator('input').press('Enter')), 'Send'],
];

before(async () => {
  editor = await startEditor(qfforms, form, folder);
  browser = await launch();
  page = await (await browser.newContext({viewport: {width: 1280, height: 1100}})).newPage();
  page.on('pageerror', (e) => pageErrors.push(e.message));
  await page.goto(editor.url);
  await page.waitForSelector('.page[data-page="0"] .overlay svg >> nth=0');
});

after(async () => {
  await browser?.close();
  editor?.proc.kill('SIGTERM');
  fs.rmSync(folder, {recursive: true, force: true});
});

describe('the field-property panel', () => {
  test('shows a text field\'s properties in labelled groups', async () => {
    await select('Text1');
    const headings = await page.locator('#field-properties h4').allTextContents();
    assert.deepEqual(headings, ['General', 'Value', 'Text field', 'Appearance']);
    assert.equal(await row('required').locator('.name').textContent(), 'Required');
    assert.equal(await row('fontSize').locator('.unit').textContent(), 'pt');
    assert.equal(await page.locator('#tool-sheet [data-property="FieldName"] .name')
      .textContent(), 'Name');
    await shot('properties-en.png');
  });

  for (const [field, id, act, wanted] of edits) {
    test(`${field}: ${id} is set, undone and redone`, async () => {
      await select(field);
      const was = await rowValue(id);
      await act(row(id));
      await settled();
      assert.deepEqual(await rowValue(id), wanted);
      assert.equal((await state()).undo.at(-1), 'Widget_SetProperty');
      await page.click('#undo');
      await settled();
      assert.deepEqual(await rowValue(id), was);
      await page.click('#redo');
      await settled();
      assert.deepEqual(await rowValue(id), wanted);
    });
  }

  test('Shift+click selects two fields: a value they differ in shows empty, one set is one undo', async () => {
    await select('Text1');
    const other = await page.locator(
      '.page[data-page="0"] g.annotations rect.widget[data-field="Text2"]').boundingBox();
    await page.keyboard.down('Shift');
    await page.mouse.click(other.x + 4, other.y + other.height / 2);
    await page.keyboard.up('Shift');
    await settled();
    const s = await state();
    assert.equal(s.properties.count, 2);
    assert.equal(await rowValue('tooltip'), null); // 'Your name' and nothing
    assert.equal(await row('tooltip').locator('input').inputValue(), '');
    const depth = s.undo.length;
    await row('tooltip').locator('input').fill('Both');
    await row('tooltip').locator('input').press('Enter');
    await settled();
    assert.equal(await rowValue('tooltip'), 'Both');
    assert.equal((await state()).undo.length, depth + 1);
    await page.click('#undo');
    await settled();
    assert.equal(await rowValue('tooltip'), null, 'each has its own again');
    await page.mouse.click(other.x + 4, other.y + 200); // beside every widget: none selected
    await settled();
    await select('Text1');
    assert.equal(await rowValue('tooltip'), 'Your name');
  });

  test('bad values are answered with their reason, the document unchanged', async () => {
    const refusals = [
      ['Text1', 'maxLength', '3',
        'The maximum length cannot be shorter than the field\'s value (5 characters).'],
      ['Text1', 'fontSize', '200',
        'The font size must be from 0 to 144 points (0 sizes the text to fit).'],
      ['Text1', 'comb', null,
        'A comb field cannot be multiline, a password or a field that does not scroll.'],
      ['Text2', 'comb', null, 'A comb field needs a maximum length.'],
    ];
    // The second radio button takes the first one's export value (out of unison).
    await select('RadioGroup1', 0);
    await row('radiosInUnison').locator('input').uncheck();
    await settled();
    const first = await rowValue('exportValue');
    refusals.push(['RadioGroup1', 'exportValue', first,
      `Another widget of this field has the export value "${first}".`, 1]);
    for (const [field, id, text, sentence, index = 0] of refusals) {
      await select(field, index);
      const before = await api('/api/document.pdf');
      const undo = (await state()).undo.length;
      if (text === null) {
        // A click, not check(): the refused box turns back at once, which check() takes
        // for a click that did not register.
        await row(id).locator('input').click();
      } else {
        await row(id).locator('input').fill(text);
        await row(id).locator('input').press('Enter');
      }
      await settled();
      // What failed, then why.
      assert.equal(await page.textContent('#message'), `The value could not be set. ${sentence}`);
      assert.ok(before.equals(await api('/api/document.pdf')), `${id}: the document changed`);
      assert.equal((await state()).undo.length, undo);
      assert.notEqual(await row(id).locator('input').inputValue(), text);
    }
    // A choice the row does not offer, straight to the server.
    const answer = await api('/api/step', {property: {id: 'borderStyle', value: 'zigzag'}});
    assert.deepEqual([answer.status, answer.error],
      [422, 'The value could not be set: "zigzag" is not one of the choices.']);
  });

  test('labels and reasons come in Japanese', async () => {
    await page.selectOption('#lang', 'ja');
    await settled();
    await select('Text1');
    assert.equal(await row('required').locator('.name').textContent(), '必須');
    assert.equal(await page.locator('#field-properties h4').first().textContent(), '一般');
    assert.equal(await row('borderStyle').locator('select option:checked').textContent(), '破線');
    await shot('properties-ja.png');
    await row('borderWidth').locator('input').fill('20');
    await row('borderWidth').locator('input').press('Enter');
    await settled();
    assert.equal(await page.textContent('#message'),
      '値を設定できませんでした。境界線の幅は 0～12 ポイントで指定してください。');
    await page.selectOption('#lang', 'en');
    await settled();
  });

  test('the saved file holds the changes and draws', async () => {
    assert.equal((await api('/api/save', {as: 'props.pdf'})).status, 200);
    const saved = path.join(folder, 'props.pdf');
    const script = `
import json, sys
from pypdf import PdfReader
out = {}
for ref in PdfReader(sys.argv[1]).pages[0]["/Annots"]:
    w = ref.get_object()
    f = w if "/T" in w else w["/Parent"].get_object()
    mk = w.get("/MK", {})
    out.setdefault(str(f["/T"]), []).append({
        "ff": int(f.get("/Ff", 0)), "tu": str(f.get("/TU", "")), "v": str(f.get("/V", "")),
        "maxlen": int(f.get("/MaxLen", 0)), "q": int(f.get("/Q", 0)), "da": str(f.get("/DA", "")),
        "bc": [float(c) for c in mk.get("/BC", [])], "bg": [float(c) for c in mk.get("/BG", [])],
        "bs": str(w.get("/BS", {}).get("/S", "")), "f": int(w.get("/F", 0)),
        "ca": str(mk.get("/CA", "")), "states": sorted(str(k) for k in w["/AP"]["/N"].keys())
            if hasattr(w["/AP"]["/N"], "keys") else []})
print(json.dumps(out))`;
    const f = JSON.parse(execFileSync('/usr/bin/python3', ['-c', script, saved], {encoding: 'utf8'}));
    const text = f.Text1[0];
    assert.equal(text.ff & 0x1002, 0x1002); // required, multiline
    assert.deepEqual([text.tu, text.v, text.maxlen, text.q], ['Your name', 'Hello', 10, 1]);
    assert.match(text.da, / 14 Tf/);
    assert.deepEqual([text.bc, text.bg, text.bs, text.f & 0x6], [[1, 0, 0], [], '/D', 0]);
    assert.deepEqual([f.CheckBox1[0].ca, f.CheckBox1[0].states], ['H', ['/Agree', '/Off']]);
    // Set, undone, redone, then turned off again for the refusal of a shared export value.
    assert.equal(f.RadioGroup1[0].ff & 0x2000000, 0);
    assert.deepEqual(f.RadioGroup1[1].states, ['/Off', '/Two']);
    assert.ok(f.ComboBox1[0].ff & 0x40000, 'editable');
    assert.equal(f.Button1[0].ca, 'Send');
    for (const [program, argv] of [['pdftoppm', ['-r', '30', '-png', saved, `${folder}/p`]],
      ['mutool', ['draw', '-q', '-o', `${folder}/m.png`, saved]]]) {
      execFileSync(program, argv, {stdio: ['ignore', 'ignore', 'pipe']});
    }
    assert.deepEqual(pageErrors, []);
  });
});
