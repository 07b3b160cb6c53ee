// A form authored entirely in the editor's page behaves in pdf.js's form filling:
//
//   node tests/web/behaviour.test.mjs --qfforms BIN --sample BLANK.pdf --artifacts DIR
//
// Eleven fields of every kind are drawn with the mouse on a copy of BLANK.pdf; the
// behaviour panel gives the text fields number, percentage, date and phone formats, a
// range and a calculated total, and the button a reset action; one change is undone and
// redone, the panel is shown in Japanese, and the form is saved. pypdf then reads the
// scripts and the calculation order, and pdf.js (scripts on, as its viewer fills forms)
// formats what is typed, computes the total and refuses a value out of range in the
// editor's preview. DIR
// receives screenshots of the panel and of the filled form.

import assert from 'node:assert/strict';
import {execFileSync} from 'node:child_process';
import fs from 'node:fs';
import path from 'node:path';
import {after, before, test} from 'node:test';
import {launch, settled as settledIn, setUp, startEditor, stateOf} from './harness.mjs';

const {qfforms, artifacts, folder, file} = setUp('form.pdf');
const saved = path.join(folder, 'authored.pdf');

let editor, browser, page, page0;
const errors = [];

before(async () => {
  editor = await startEditor(qfforms, file, folder);
  browser = await launch();
  page = await (await browser.newContext({viewport: {width: 1280, height: 1000}})).newPage();
  page.on('pageerror', (e) => errors.push(e.message));
  await page.goto(editor.url);
  await page.waitForSelector('.page[data-page="0"] .overlay svg >> nth=0');
  await settled();
  page0 = await page.evaluate(() => document.querySelector('.page[data-page="0"]')
    .getBoundingClientRect().toJSON());
});

after(async () => {
  await browser?.close();
  if (editor?.proc.exitCode === null) editor.proc.kill('SIGKILL');
  fs.rmSync(folder, {recursive: true, force: true});
});

const settled = () => settledIn(page);
const shot = (name, target = page) => target.screenshot({path: path.join(artifacts, name)});
const state = () => stateOf(page);

// Page 0's pixel (x, y) at zoom 1 in the window.
const at = ([x, y]) => [page0.x + x, page0.y + y];

async function draw(tool, from, to) {
  await page.click(`[data-tool="${tool}"]`);
  await page.mouse.move(...at(from));
  await page.mouse.down();
  await page.mouse.move(...at(to), {steps: 6});
  await page.mouse.up();
  await settled();
}

// Selects the widget of field name at page pixel p (select mode) and waits for its panel.
async function select(p, name) {
  await page.click('[data-tool=""]');
  await settled();
  await page.mouse.click(...at(p));
  await settled();
  await page.waitForSelector(`#behaviour-sheet:not([hidden])[data-fields="${name}"]`);
}

async function apply(part) {
  await page.click(`#${part}-part .apply`);
  await settled();
}

// The fields, top to bottom, in page pixels at zoom 1: [tool, from, to].
const layout = [
  ['TextFieldCreate', [100, 100], [300, 124]], // Text1: price
  ['TextFieldCreate', [100, 140], [300, 164]], // Text2: quantity, 1 to 100
  ['TextFieldCreate', [100, 180], [300, 204]], // Text3: total = price × quantity
  ['TextFieldCreate', [100, 220], [300, 244]], // Text4: date
  ['TextFieldCreate', [100, 260], [300, 284]], // Text5: phone
  ['TextFieldCreate', [100, 300], [300, 324]], // Text6: share
  ['CheckBoxCreate', [100, 360], [118, 378]],
  ['RadioGroupCreate', [140, 360], [158, 378]],
  ['ComboBoxCreate', [100, 400], [250, 422]],
  ['ListBoxCreate', [100, 440], [250, 500]],
  ['PushButtonCreate', [100, 540], [180, 564]], // resets the form
];
const inside = (i) => [layout[i][1][0] + 20, layout[i][1][1] + 8];

test('the behaviour panel sets formats, a range, a total and an action, each undoable', async () => {
  for (const [tool, from, to] of layout) await draw(tool, from, to);
  assert.equal((await state()).undo.length, layout.length);

  await select(inside(0), 'Text1');
  await page.selectOption('#format-part select[name="format-kind"]', 'Number');
  await page.fill('#format-part input[name="currency"]', '$');
  await apply('format');
  let s = await state();
  assert.match(s.actions.field.Format.script, /^AFNumber_Format\(2, 0, 0, 0, "\$", true\);$/);
  assert.match(s.actions.field.Keystroke.script, /^AFNumber_Keystroke\(/);
  // One step, one undo: both scripts go and come back together.
  await page.click('#undo');
  await settled();
  s = await state();
  assert.deepEqual([s.actions.field.Format, s.actions.field.Keystroke], [null, null]);
  assert.equal(await page.inputValue('#format-part select[name="format-kind"]'), 'None');
  await page.click('#redo');
  await settled();
  assert.equal(await page.inputValue('#format-part select[name="format-kind"]'), 'Number');

  await select(inside(1), 'Text2');
  await page.selectOption('#format-part select[name="format-kind"]', 'Number');
  await page.fill('#format-part input[name="decimals"]', '0');
  await apply('format');
  await page.selectOption('#validate-part select[name="validate-kind"]', 'Range');
  await page.fill('#validate-part input[name="at-least"]', '100');
  await page.fill('#validate-part input[name="at-most"]', '1');
  await apply('validate');
  assert.match(await page.textContent('#validate-part .problem'), /least value is above/);
  assert.equal((await state()).actions.field.Validate, null, 'nothing was sent');
  await page.fill('#validate-part input[name="at-least"]', '1');
  await page.fill('#validate-part input[name="at-most"]', '100');
  await apply('validate');
  assert.equal((await state()).actions.field.Validate.script,
    'AFRange_Validate(true, 1, true, 100);');

  await select(inside(2), 'Text3');
  await page.selectOption('#format-part select[name="format-kind"]', 'Number');
  await page.fill('#format-part input[name="currency"]', '$');
  await apply('format');
  await page.selectOption('#calculate-part select[name="calculate-kind"]', 'Simple');
  await page.selectOption('#calculate-part select:not([name])', 'PRD');
  await page.selectOption('#calculate-part select[name="calculate-fields"]', ['Text1', 'Text2']);
  await apply('calculate');
  s = await state();
  assert.equal(s.actions.field.Calculate.script,
    'AFSimple_Calculate("PRD", new Array("Text1", "Text2"));');
  assert.deepEqual(s.calculationOrder, ['Text3']);
  await shot('behaviour-panel-en.png', page.locator('#panel'));

  await select(inside(3), 'Text4');
  await page.selectOption('#format-part select[name="format-kind"]', 'Date');
  await page.fill('#format-part input[name="date-pattern"]', 'yyyy-mm-dd');
  await apply('format');
  await select(inside(4), 'Text5');
  await page.selectOption('#format-part select[name="format-kind"]', 'Special');
  await page.selectOption('#format-part .details select', '2');
  await apply('format');
  await select(inside(5), 'Text6');
  await page.selectOption('#format-part select[name="format-kind"]', 'Percent');
  await page.fill('#format-part input[name="decimals"]', '1');
  await apply('format');

  // The button resets the form when clicked; a chain of two actions.
  await select(inside(10), 'Button1');
  assert.equal(await page.locator('#format-part').count(), 0, 'a button has no format');
  await page.selectOption('#actions-part select[name="trigger"]', 'MouseUp');
  await page.selectOption('#actions-part select[name="add-action"]', String(445));
  await page.selectOption('#actions-part select[name="add-action"]', String(275));
  await page.fill('#actions-part .action textarea', 'app.alert("Cleared");');
  await apply('actions');
  s = await state();
  const chain = s.actions.widget.MouseUp;
  assert.deepEqual([chain['action-type'], chain['next-action']['action-type']], [445, 275]);

  await page.selectOption('#lang', 'ja');
  await settled();
  assert.equal(await page.textContent('#behaviour-sheet h3'), '動作');
  assert.equal(await page.textContent('#actions-part h4'), 'アクション');
  await shot('behaviour-panel-ja.png', page.locator('#panel'));
  await page.selectOption('#lang', 'en');
  await settled();

  await page.fill('#save-as-name', 'authored.pdf');
  await page.click('#save-as');
  await settled();
  assert.ok(fs.existsSync(saved), 'saved');
  assert.deepEqual(errors, []);
});

test('pypdf reads the scripts and the calculation order', () => {
  const read = JSON.parse(execFileSync('/usr/bin/python3', ['-c', `
import json, sys
from pypdf import PdfReader
r = PdfReader(sys.argv[1])
form = r.trailer["/Root"]["/AcroForm"]
out = {"CO": [f.get_object()["/T"] for f in form.get("/CO", [])]}
for a in r.pages[0]["/Annots"]:
    a = a.get_object()
    f = a["/Parent"].get_object() if "/T" not in a else a
    for owner in (f, a):
        for k, v in owner.get("/AA", {}).items():
            v = v.get_object()
            out[f["/T"] + k] = v.get("/JS", v["/S"])
print(json.dumps(out))`, saved], {encoding: 'utf8'}));
  assert.deepEqual(read.CO, ['Text3']);
  assert.equal(read['Text4/F'], 'AFDate_FormatEx("yyyy-mm-dd");');
  assert.equal(read['Text5/K'], 'AFSpecial_Keystroke(2);');
  assert.equal(read['Text6/F'], 'AFPercent_Format(1, 0);');
  assert.equal(read['Text2/V'], 'AFRange_Validate(true, 1, true, 100);');
  const button = Object.keys(read).find((k) => k.endsWith('/U'));
  assert.equal(read[button], '/ResetForm');
});

test('the preview fills the form in pdf.js: formats apply, the total computes, a range refuses',
  async () => {
    await page.click('#preview');
    await page.waitForSelector('#preview-box[data-scripts="on"] input[name="Text1"]',
      {timeout: 60000});
    const input = (name) => page.locator(`#preview-box input[name="${name}"]`).first();
    // Typed, then committed with Tab, as the reader commits a field only when the focus
    // goes to another element; the field focused next shows its raw value, the others
    // their formatted one, which the sandbox sends a while after.
    const type = async (name, text) => {
      await input(name).click();
      // The reader's focus puts the raw value in a while after: typed again if it came late.
      for (let tries = 0; tries < 5; ++tries) {
        await page.waitForTimeout(300);
        if (await input(name).inputValue() === text) break;
        await input(name).fill(text);
      }
      await page.keyboard.press('Tab');
    };
    const shows = (name, value) => page.waitForFunction(([n, v]) =>
      document.querySelector(`#preview-box input[name="${n}"]`)?.value === v, [name, value],
    {timeout: 30000});
    await type('Text2', '3');
    await type('Text1', '12.5'); // the focus goes on to Text2
    await shows('Text3', '$37.50');
    await shows('Text1', '$12.50');
    await type('Text4', '2026-11-26');
    await shows('Text4', '2026-11-26');
    await type('Text6', '0.25');
    await shows('Text6', '25.0%');
    await shot('behaviour-preview-filled.png');
    // Out of range: the reader does not take the value (it puts back the former one, or
    // none when the sandbox is slow to answer), and the total does not follow it.
    await type('Text2', '500');
    await page.waitForFunction(() =>
      ['3', ''].includes(document.querySelector('#preview-box input[name="Text2"]')?.value),
    null, {timeout: 30000});
    assert.notEqual(await input('Text3').inputValue(), '$6,250.00');
    // Back to editing: the document was not changed by what was typed.
    const revision = (await state()).revision;
    await page.click('#preview');
    assert.ok(await page.locator('#preview-box').isHidden());
    assert.equal((await state()).revision, revision);
    assert.equal((await state()).document.modified, false);
  });
