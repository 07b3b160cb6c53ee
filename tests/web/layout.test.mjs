// Laying out a form in the editor's page, in a real browser against `qfforms edit`:
//
//   node tests/web/layout.test.mjs --qfforms BIN --sample BLANK.pdf --form REAL.pdf
//        --artifacts DIR
//
// On a copy of BLANK.pdf (one empty page) fields are drawn with a corner snapped to
// another's edge, selected with a rubber band, dragged together, aligned, spaced and sized
// from the arrange menu, snapped to each other and to the grid while moved (Alt turning
// snapping off), copied, pasted, duplicated and cut as groups, placed in rows and columns,
// and worked through the context menu with the mouse and the keys; every step is one undo
// step and the saved file holds the layout as pypdf reads it. On a copy of REAL.pdf (a
// form made by another program) a band selects a column of its fields, which are aligned
// and undone. DIR receives the pictures.

import assert from 'node:assert/strict';
import {execFileSync} from 'node:child_process';
import fs from 'node:fs';
import path from 'node:path';
import {after, before, describe} from 'node:test';
import {launch, settled as settledIn, setUp, stage as stageIn, startEditor as start}
  from './harness.mjs';

const {qfforms, artifacts, folder, file: blank, options: args} = setUp('layout.pdf');

let editor; // {proc, port, token}
let browser;
let page;
let page0; // page 0's rectangle in the view
const pageErrors = [];

const startEditor = (file) => start(qfforms, file, folder);

async function api(route, body) {
  const r = await fetch(`http://127.0.0.1:${editor.port}${route}`, {
    method: body === undefined ? 'GET' : 'POST',
    headers: {'X-QF-Token': editor.token},
    body: body === undefined ? undefined : JSON.stringify(body),
  });
  return {status: r.status, ...(await r.json())};
}

const state = async () => (await api('/api/state')).state;
const shot = (name) => page.screenshot({path: path.join(artifacts, name)});

const settled = () => settledIn(page);

async function open(file) {
  editor = await startEditor(file);
  await page.goto(editor.url);
  await page.waitForSelector('.page[data-page="0"] .overlay svg >> nth=0');
  await settled();
  page0 = (await state()).layout.pages[0];
}

// page 0's widgets as the overlay shows them, by field name, in the page's pixels.
async function widgets() {
  const rects = await page.$$eval('.page[data-page="0"] g.annotations rect.widget', (all) =>
    all.map((r) => ({field: r.dataset.field,
      ...Object.fromEntries(['x', 'y', 'width', 'height'].map((a) => [a, Number(r.getAttribute(a))]))})));
  return Object.fromEntries(rects.map((r) => [r.field, r]));
}

// Window positions of page 0's pixel (x, y).
async function inWindow(x, y) {
  const box = await page.locator('#view').boundingBox();
  return [box.x + page0.left + x, box.y + page0.top + y];
}

// A drag in page 0's pixels; hold names a key held throughout; before runs before the release.
async function drag(from, to, {hold, before: beforeRelease} = {}) {
  if (hold) await page.keyboard.down(hold);
  await page.mouse.move(...await inWindow(...from));
  await page.mouse.down();
  await page.mouse.move(...await inWindow(...to), {steps: 10});
  await beforeRelease?.();
  await page.mouse.up();
  if (hold) await page.keyboard.up(hold);
  await settled();
}

async function click(x, y, options = {}) {
  await page.mouse.click(...await inWindow(x, y), options);
  await settled();
}

async function press(selector) {
  await page.click(selector);
  await settled();
}

const selected = async () => (await state()).selection?.all.map((w) => w.field) ?? [];
const depth = async () => (await state()).undo.length;
const near = (a, b, what) => assert.ok(Math.abs(a - b) <= 1, `${what}: ${a} is not ${b}`);

async function arrange(name) {
  await press('#arrange');
  await press(`.menu [data-item="${name}"]`);
}

const stage = (name, f) => stageIn(name, f, () => page, artifacts, 'layout-');

// pypdf's reading of page 0's widgets: field name and rectangle (points, y up).
function readWidgets(file) {
  const script = `
import json, sys
from pypdf import PdfReader
out = {}
for a in [r.get_object() for r in PdfReader(sys.argv[1]).pages[0].get("/Annots", [])]:
    names, n = [], a
    while n is not None:
        if "/T" in n: names.insert(0, str(n["/T"]))
        n = n["/Parent"].get_object() if "/Parent" in n else None
    r = [float(v) for v in a["/Rect"]]
    out[".".join(names)] = [min(r[0], r[2]), min(r[1], r[3]), max(r[0], r[2]), max(r[1], r[3])]
print(json.dumps(out))
`;
  return JSON.parse(execFileSync('/usr/bin/python3', ['-c', script, file], {encoding: 'utf8'}));
}

before(async () => {
  browser = await launch();
  page = await (await browser.newContext({viewport: {width: 1400, height: 1000}})).newPage();
  page.on('pageerror', (e) => pageErrors.push(e.message));
  page.on('console', (m) => /Content Security Policy/.test(m.text()) && pageErrors.push(m.text()));
  await open(blank);
});

after(async () => {
  await browser?.close();
  if (editor?.proc.exitCode === null) editor.proc.kill('SIGKILL');
  fs.rmSync(folder, {recursive: true, force: true});
});

describe('laying out a blank form', () => {
  stage('a drawn field\'s corner snaps to another\'s edge, with a guide meanwhile', async () => {
    await press('[data-tool="TextFieldCreate"]');
    await drag([100, 100], [260, 122]);
    await press('[data-tool="TextFieldCreate"]');
    let guides = 0;
    // From 3 pixels right of the first field's left edge to 2 left of its right edge.
    await drag([103, 182], [258, 208], {before: async () => {
      guides = await page.locator('.layout-layer line.guide').count();
    }});
    assert.ok(guides >= 1, 'a guide shows while the corner is snapped');
    assert.equal(await page.locator('.layout-layer line.guide').count(), 0, 'gone after');
    await press('[data-tool="TextFieldCreate"]');
    await drag([300, 260], [420, 290]);
    const w = await widgets();
    assert.deepEqual(Object.keys(w), ['Text1', 'Text2', 'Text3']);
    near(w.Text2.x, w.Text1.x, 'Text2 left');
    near(w.Text2.x + w.Text2.width, w.Text1.x + w.Text1.width, 'Text2 right');
    near(w.Text2.y + w.Text2.height, 208, 'Text2 bottom, nothing to snap to');
  });

  stage('a rubber band selects what it touches; Shift adds; a band over nothing empties', async () => {
    await press('[data-tool=""]');
    // From beside the fields to a point inside Text2: Text1 and Text2 touch it.
    await drag([60, 80], [150, 190]);
    assert.deepEqual(await selected(), ['Text1', 'Text2']);
    assert.equal(await page.textContent('#marked-count'), '2 selected');
    await drag([450, 300], [400, 280], {hold: 'Shift'});
    assert.deepEqual(await selected(), ['Text1', 'Text2', 'Text3']);
    assert.equal(await page.locator('.band').count(), 0);
    await shot('layout-01-band.png');
    await drag([500, 500], [520, 520]);
    assert.deepEqual(await selected(), []);
    // Escape ends a band with nothing selected.
    await drag([60, 80], [150, 190], {before: () => page.keyboard.press('Escape')});
    assert.deepEqual(await selected(), []);
  });

  stage('dragging one of several selected fields moves them all as one step', async () => {
    await drag([60, 80], [450, 300]);
    assert.deepEqual(await selected(), ['Text1', 'Text2', 'Text3']);
    const before = await widgets(), steps = await depth();
    let ghosts = 0;
    // Alt: no snapping, so the move is exactly the pointer's.
    await drag([150, 190], [187, 221], {hold: 'Alt', before: async () => {
      ghosts = await page.locator('.layout-layer rect.ghost').count();
    }});
    assert.equal(ghosts, 3);
    const after = await widgets();
    for (const f of ['Text1', 'Text2', 'Text3']) {
      near(after[f].x, before[f].x + 37, `${f} x`);
      near(after[f].y, before[f].y + 31, `${f} y`);
    }
    assert.equal(await depth(), steps + 1);
    assert.deepEqual(await selected(), ['Text1', 'Text2', 'Text3'], 'still selected');
    await press('#undo');
    assert.deepEqual(await widgets(), before);
    // A click on one of them selects it alone; a band selects them again.
    await click(before.Text3.x + 5, before.Text3.y + 5);
    assert.deepEqual(await selected(), ['Text3']);
    await drag([60, 80], [450, 300]);
  });

  stage('align, distribute and same size follow the first selected, each one undo step', async () => {
    const before = await widgets();
    const steps = await depth();
    assert.equal(await page.isDisabled('#arrange'), false);
    await arrange('alignLeft');
    let w = await widgets();
    assert.deepEqual([w.Text2.x, w.Text3.x], [before.Text1.x, before.Text1.x]);
    assert.equal(await depth(), steps + 1);
    await press('#undo');
    assert.deepEqual(await widgets(), before);
    await arrange('alignMiddles');
    w = await widgets();
    for (const f of ['Text2', 'Text3']) {
      near(w[f].y + w[f].height / 2, before.Text1.y + before.Text1.height / 2, `${f} middle`);
    }
    await press('#undo');
    await arrange('sameSize');
    w = await widgets();
    for (const f of ['Text2', 'Text3']) {
      assert.deepEqual([w[f].width, w[f].height, w[f].x, w[f].y],
        [before.Text1.width, before.Text1.height, before[f].x, before[f].y]);
    }
    assert.match(await page.getAttribute('#undo', 'title'), /Undo arrange/);
    await press('#undo');
    // Text2 is moved down near Text3, then spaced evenly between Text1 and Text3.
    await arrange('distributeDown');
    w = await widgets();
    const gap1 = w.Text2.y - (w.Text1.y + w.Text1.height);
    const gap2 = w.Text3.y - (w.Text2.y + w.Text2.height);
    near(gap1, gap2, 'equal gaps');
    assert.deepEqual([w.Text1.y, w.Text3.y], [before.Text1.y, before.Text3.y], 'the outer ones stay');
    await press('#undo');
    assert.deepEqual(await widgets(), before);
    // Two fields do not distribute; the menu says so by its disabled item.
    await drag([60, 80], [150, 190]);
    await press('#arrange');
    assert.equal(await page.isDisabled('.menu [data-item="distributeDown"]'), true);
    assert.equal(await page.isDisabled('.menu [data-item="alignTop"]'), false);
    await page.keyboard.press('Escape');
    assert.equal(await page.locator('.menu').count(), 0);
  });

  stage('a moved field snaps to another\'s edges and to the grid; Alt turns it off', async () => {
    let w = await widgets();
    await click(w.Text3.x + 5, w.Text3.y + 5);
    // Text3's left comes 3 pixels right of Text1's left edge.
    const dx = w.Text1.x + 3 - w.Text3.x;
    await drag([w.Text3.x + 5, w.Text3.y + 5], [w.Text3.x + 5 + dx, w.Text3.y + 45]);
    let now = await widgets();
    near(now.Text3.x, w.Text1.x, 'snapped left');
    await press('#undo');
    await drag([w.Text3.x + 5, w.Text3.y + 5], [w.Text3.x + 5 + dx, w.Text3.y + 45], {hold: 'Alt'});
    now = await widgets();
    near(now.Text3.x, w.Text1.x + 3, 'with Alt, not snapped');
    await press('#undo');
    // The grid: 25 points; the field's top left corner goes to a crossing.
    await page.check('#grid-on');
    await page.fill('#grid-size', '25');
    await page.locator('#grid-size').dispatchEvent('change');
    await shot('layout-02-grid.png');
    w = await widgets();
    await drag([w.Text3.x + 5, w.Text3.y + 5], [w.Text3.x + 61, w.Text3.y + 93]);
    now = await widgets();
    near(now.Text3.x % 25 === 0 ? 0 : Math.min(now.Text3.x % 25, 25 - (now.Text3.x % 25)), 0, 'x on grid');
    near(now.Text3.y % 25 === 0 ? 0 : Math.min(now.Text3.y % 25, 25 - (now.Text3.y % 25)), 0, 'y on grid');
    await press('#undo');
    await page.uncheck('#grid-on');
    assert.equal(await page.locator('.layout-layer.grid').count(), 0);
  });

  stage('several fields copy, paste, duplicate and cut together, one step each', async () => {
    await drag([60, 80], [150, 190]); // Text1, Text2
    const before = await widgets();
    let steps = await depth();
    await page.keyboard.press('Control+c');
    await settled();
    await page.keyboard.press('Control+v');
    await settled();
    let w = await widgets();
    assert.deepEqual(await selected(), ['Text1_2', 'Text2_2'], 'the copies are the selection');
    for (const f of ['Text1', 'Text2']) {
      near(w[`${f}_2`].x, before[f].x + 10, `${f}_2 x`);
      near(w[`${f}_2`].y, before[f].y + 10, `${f}_2 y`);
    }
    assert.equal(await depth(), steps + 1);
    await press('#undo');
    assert.deepEqual(Object.keys(await widgets()), ['Text1', 'Text2', 'Text3']);
    await drag([60, 80], [150, 190]);
    steps = await depth();
    await page.keyboard.press('Control+d');
    await settled();
    // (The fields the undone paste made keep their names until the file is saved.)
    const copies = await selected();
    assert.equal(copies.length, 2);
    assert.match(copies.join(' '), /^Text1_\d Text2_\d$/);
    assert.equal(await depth(), steps + 1);
    assert.match(await page.getAttribute('#undo', 'title'), /Undo duplicate/);
    await press('#undo');
    await drag([60, 80], [150, 190]);
    await page.keyboard.press('Control+x');
    await settled();
    assert.deepEqual(Object.keys(await widgets()), ['Text3']);
    assert.match(await page.getAttribute('#undo', 'title'), /Undo cut/);
    await press('#undo');
    assert.deepEqual(await widgets(), before);
  });

  stage('the context menu works with the mouse and the keys', async () => {
    const w = await widgets();
    await click(w.Text3.x + 5, w.Text3.y + 5, {button: 'right'});
    assert.deepEqual(await selected(), ['Text3'], 'a right click selects the field');
    assert.equal(await page.locator('.menu[role=menu]').count(), 1);
    assert.equal(await page.isDisabled('.menu [data-item="group-radio"]'), true, 'text fields');
    assert.equal(await page.evaluate(() => document.activeElement.dataset.item), 'cut');
    await shot('layout-03-menu.png');
    await page.keyboard.press('Escape');
    assert.equal(await page.locator('.menu').count(), 0);
    await click(w.Text3.x + 5, w.Text3.y + 5, {button: 'right'});
    await click(500, 700); // elsewhere, which selects nothing there
    assert.equal(await page.locator('.menu').count(), 0);
    await click(w.Text3.x + 5, w.Text3.y + 5);
    // From the keyboard: Shift+F10, down to Copy, Enter; then Paste from the menu.
    await page.keyboard.press('Shift+F10');
    await page.keyboard.press('ArrowDown');
    assert.equal(await page.evaluate(() => document.activeElement.dataset.item), 'copy');
    await page.keyboard.press('Enter');
    await settled();
    await click(w.Text3.x + 5, w.Text3.y + 5, {button: 'right'});
    await press('.menu [data-item="paste"]');
    assert.deepEqual(await selected(), ['Text3_2']);
    await press('#undo');
    await click(w.Text3.x + 5, w.Text3.y + 5, {button: 'right'});
    await press('.menu [data-item="properties"]');
    assert.ok(await page.evaluate(() => document.getElementById('panel').contains(document.activeElement)));
  });

  stage('place multiple makes a table of new fields with the next names, one step', async () => {
    let w = await widgets();
    await click(w.Text3.x + 5, w.Text3.y + 5);
    const name = page.locator('#tool-sheet [data-property="FieldName"] input');
    await name.fill('Row1');
    await name.press('Enter');
    await settled();
    w = await widgets();
    const steps = await depth();
    await click(w.Row1.x + 5, w.Row1.y + 5, {button: 'right'});
    await page.click('.menu [data-item="place-multiple"]');
    await page.fill('#place-dialog [name=rows]', '40');
    await page.fill('#place-dialog [name=columns]', '1');
    await page.click('#place-dialog [type=submit]');
    await settled();
    assert.match(await page.textContent('#place-dialog .problem'), /reach past the page/);
    assert.equal(await depth(), steps, 'nothing placed');
    await page.fill('#place-dialog [name=rows]', '3');
    await page.fill('#place-dialog [name=columns]', '2');
    await page.fill('#place-dialog [name=gapRight]', '6');
    await page.fill('#place-dialog [name=gapDown]', '4');
    await page.click('#place-dialog [type=submit]');
    await settled();
    assert.equal(await page.locator('#place-dialog[open]').count(), 0);
    const now = await widgets();
    const r = now.Row1;
    const expected = {Row2: [1, 0], Row3: [0, 1], Row4: [1, 1], Row5: [0, 2], Row6: [1, 2]};
    for (const [name, [c, k]] of Object.entries(expected)) {
      assert.ok(now[name], `${name} is there`);
      near(now[name].x, r.x + c * (r.width + 6), `${name} x`);
      near(now[name].y, r.y + k * (r.height + 4), `${name} y`);
    }
    assert.deepEqual(await selected(), ['Row1', 'Row2', 'Row3', 'Row4', 'Row5', 'Row6']);
    assert.equal(await depth(), steps + 1);
    await shot('layout-04-table.png');
    await press('#undo');
    assert.deepEqual(Object.keys(await widgets()).sort(), ['Row1', 'Text1', 'Text2']);
    await press('#redo');
  });

  stage('in Japanese: the arrange menu and a refusal', async () => {
    await page.selectOption('#lang', 'ja');
    await settled();
    await drag([60, 80], [150, 190]);
    await press('#arrange');
    assert.equal(await page.textContent('.menu [data-item="alignLeft"]'), '左端を揃える');
    await shot('layout-05-ja.png');
    await page.keyboard.press('Escape');
    await click(500, 700);
    const refused = await api('/api/step', {arrange: 'alignLeft'});
    assert.equal(refused.status, 422);
    assert.match(refused.error, /^フィールドを整列できませんでした。フィールドを 2 個以上選択/);
    await page.selectOption('#lang', 'en');
    await settled();
  });

  stage('the saved file holds the layout as pypdf reads it', async () => {
    await drag([60, 80], [150, 190]); // Text1, Text2
    await arrange('sameWidth');
    const w = await widgets();
    const h = page0.bottom - page0.top;
    await page.fill('#save-as-name', 'laid-out.pdf');
    await press('#save-as');
    const saved = readWidgets(path.join(folder, 'laid-out.pdf'));
    fs.copyFileSync(path.join(folder, 'laid-out.pdf'), path.join(artifacts, 'laid-out.pdf'));
    assert.deepEqual(Object.keys(saved).sort(),
      ['Row1', 'Row2', 'Row3', 'Row4', 'Row5', 'Row6', 'Text1', 'Text2']);
    for (const [name, r] of Object.entries(saved)) {
      const o = w[name];
      [o.x, h - o.y - o.height, o.x + o.width, h - o.y].forEach((v, k) => near(r[k], v, `${name}[${k}]`));
    }
    near(saved.Text2[2] - saved.Text2[0], saved.Text1[2] - saved.Text1[0], 'same width');
    await shot('layout-06-saved.png');
    assert.deepEqual(pageErrors, []);
  });
});

describe('a real form', () => {
  stage('a band selects a column of its fields, which align and undo', async () => {
    editor.proc.kill('SIGINT');
    const form = path.join(folder, 'real.pdf');
    fs.copyFileSync(args.form, form);
    await open(form);
    await page.click('#fit-width');
    await settled();
    page0 = (await state()).layout.pages[0];
    const all = Object.values(await widgets());
    assert.ok(all.length > 10, 'the form has fields on page 1');
    // A band from the page's right edge, where no field lies, over the amounts of a few
    // lines of the income part.
    const width = page0.right - page0.left, height = page0.bottom - page0.top;
    await drag([width - 2, height * 0.6], [width * 0.9, height * 0.68]);
    const chosen = await selected();
    assert.ok(chosen.length >= 2, `the band selected ${chosen.length}`);
    assert.equal((await state()).document.modified, false, 'the band moved nothing');
    const before = await widgets();
    await arrange('alignRight');
    const w = await widgets();
    const first = w[chosen[0]];
    for (const f of chosen) near(w[f].x + w[f].width, first.x + first.width, `${f} right`);
    await shot('layout-07-real-form.png');
    await press('#undo');
    assert.deepEqual(await widgets(), before);
    assert.deepEqual(pageErrors, []);
    editor.proc.kill('SIGINT');
  });
});
