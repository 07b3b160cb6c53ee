// Finding one's way in a form in the editor's page:
//
//   node tests/web/navigation.test.mjs --qfforms BIN --form FORM.pdf --artifacts DIR
//
// On a copy of FORM.pdf (the repository's sample form): the field list selects a field and
// brings it into sight, filters by name and renames in place (undoably); a list of 600
// fields holds only its rows in sight and scrolls to its last; fit width, fit
// page, actual size and the zoom keys, page thumbnails, all drawn from one loaded document;
// the tab-order list reorders by dragging, one undo. DIR gets screenshots.

import assert from 'node:assert/strict';
import fs from 'node:fs';
import path from 'node:path';
import {after, before, test} from 'node:test';
import {launch, manyFields, settled as settledIn, setUp, startEditor, stateOf} from './harness.mjs';

const {qfforms, artifacts, folder, file} = setUp('form.pdf');

let editor, browser, page;
const errors = [];
let documentLoads = 0;

before(async () => {
  editor = await startEditor(qfforms, file, folder);
  browser = await launch();
  page = await (await browser.newContext({viewport: {width: 1280, height: 900}})).newPage();
  page.on('pageerror', (e) => errors.push(e.message));
  page.on('request', (r) => r.url().endsWith('/api/document.pdf') && ++documentLoads);
  await page.goto(editor.url);
  await page.waitForSelector('#fields li[data-field]');
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
const item = (name) => page.locator(`#fields li[data-field="${name}"] > .item`);

test('the field list selects, filters and renames fields', async () => {
  const listed = await page.locator('#fields li[data-field]').evaluateAll(
    (e) => e.map((li) => li.dataset.field));
  assert.ok(listed.includes('text2') && listed.includes('combodrop1'), listed.join());
  assert.match(await item('r1').textContent(), /Radio/);

  await item('combodrop1').click();
  await settled();
  assert.equal((await state()).selection.field, 'combodrop1');
  assert.ok(await item('combodrop1').evaluate((e) => e.classList.contains('selected')));

  await page.fill('#field-filter', 'CHECK');
  const shown = await page.locator('#fields li[data-field]:not([hidden])').evaluateAll(
    (e) => e.map((li) => li.dataset.field));
  assert.deepEqual(shown, ['checkbox1', 'checkbox2', 'checkbox3']);
  await page.fill('#field-filter', '');

  await item('text2').dblclick();
  await page.fill('#fields input.rename', 'Potato');
  await page.press('#fields input.rename', 'Enter');
  await settled();
  await page.waitForSelector('#fields li[data-field="Potato"]');
  assert.equal((await state()).undo.at(-1), 'Widget_Rename');
  await shot('navigation-fields.png');
  await page.click('#undo');
  await settled();
  await page.waitForSelector('#fields li[data-field="text2"]');

  // In Japanese: the list's heading, kinds and pages.
  await page.selectOption('#lang', 'ja');
  await settled();
  await page.waitForFunction(() => /ラジオ/.test(
    document.querySelector('#fields li[data-field="r1"] > .item')?.textContent));
  assert.equal(await page.textContent('#fields h2'), 'フィールド');
  assert.match(await item('text2').textContent(), /テキスト.*1 ページ/);
  await shot('navigation-fields-ja.png');
  await page.selectOption('#lang', 'en');
  await settled();
});

test('a list of 600 fields holds only the rows in sight, scrolls to the last and to a picked widget', async () => {
  const many = path.join(folder, 'many.pdf');
  fs.writeFileSync(many, manyFields(600), 'latin1');
  const other = await startEditor(qfforms, many, folder);
  const tab = await browser.newPage({viewport: {width: 1280, height: 900}});
  try {
    await tab.goto(other.url);
    await tab.waitForSelector('#fields li[data-field]');
    const drawn = await tab.locator('#fields li').count();
    assert.ok(drawn > 20 && drawn < 100, `${drawn} rows in the page`);
    await tab.evaluate(() => {
      const tree = document.querySelector('#fields .tree');
      tree.scrollTop = tree.scrollHeight;
    });
    const last = tab.locator('#fields li[data-field="group11.f49"] > .item');
    await last.click();
    await settledIn(tab);
    assert.equal((await stateOf(tab)).selection.field, 'group11.f49');
    assert.ok(await last.evaluate((e) => e.classList.contains('selected')));
    await tab.fill('#field-filter', 'F49');
    const kept = await tab.locator('#fields li[data-field]').evaluateAll(
      (e) => e.map((li) => li.dataset.field));
    assert.equal(kept.length, 12, kept.join());
    assert.ok(kept.every((name) => name.endsWith('.f49')), kept.join());
    await tab.screenshot({path: path.join(artifacts, 'navigation-long-list.png')});

    // A widget picked on the page brings its row into the list's sight.
    await tab.fill('#field-filter', '');
    await tab.evaluate(() => { document.querySelector('#fields .tree').scrollTop = 0; });
    const outline = await tab.locator('.overlay rect.widget[data-field="group11.f2"]').boundingBox();
    await tab.mouse.click(outline.x + outline.width / 2, outline.y + outline.height / 2);
    await settledIn(tab);
    assert.equal((await stateOf(tab)).selection.field, 'group11.f2');
    const inSight = await tab.evaluate(() => {
      const row = document.querySelector('#fields li[data-field="group11.f2"] > .item');
      const tree = document.querySelector('#fields .tree').getBoundingClientRect();
      const box = row?.getBoundingClientRect();
      return !!box && box.top >= tree.top && box.bottom <= tree.bottom &&
        row.classList.contains('selected');
    });
    assert.ok(inSight, 'the picked field\'s row is in sight and marked');
  } finally {
    await tab.close();
    other.proc.kill();
  }
});

test('fit width, fit page, actual size and the zoom keys; one document load', async () => {
  const zoom = async () => (await state()).layout.zoom;
  const widest = async () => {
    const s = await state();
    return Math.max(...s.layout.pages.map((p) => p.right - p.left));
  };
  const scroller = await page.locator('#scroller').evaluate((e) => [e.clientWidth, e.clientHeight]);
  await page.click('#fit-width');
  await settled();
  const w = await widest();
  assert.ok(w <= scroller[0] - 32 && w > scroller[0] - 60, `${w} in ${scroller[0]}`);
  await page.click('#fit-page');
  await settled();
  const p = (await state()).layout.pages[0];
  assert.ok(p.bottom - p.top <= scroller[1] - 32, 'the page fits its height');
  await page.click('#actual-size');
  await settled();
  assert.equal(await zoom(), 1);
  // The outlines follow a zoom at once, scaled, and again once fetched at the new zoom.
  const outline = () => page.evaluate(() => {
    const p = document.querySelector('.page[data-page="0"]').getBoundingClientRect();
    const r = document.querySelector('.page[data-page="0"] rect.widget').getBoundingClientRect();
    return [r.left - p.left, r.top - p.top, r.width, r.height];
  });
  const near = (a, b) => a.every((v, k) => Math.abs(v - b[k]) < 1.5);
  const before = (await outline()).map((v) => v * 1.25);
  await page.locator('#view').focus();
  await page.keyboard.press('Control+=');
  await settled();
  assert.equal(await zoom(), 1.25);
  assert.ok(near(await outline(), before), `${await outline()} at 125% of ${before}`);
  await page.waitForSelector('.page[data-page="0"] .overlay[data-zoom="1.25"]');
  assert.ok(near(await outline(), before), `${await outline()} at 125% of ${before}`);
  await page.keyboard.press('Control+0');
  await settled();
  assert.equal(await zoom(), 1);
  // Every canvas came from the document loaded once, redrawn at each zoom.
  await page.waitForFunction(() => [...document.querySelectorAll('.page[data-visible]')]
    .every((e) => Math.abs(e.querySelector('canvas').width / devicePixelRatio -
      e.getBoundingClientRect().width) < 2));
  // The thumbnails too.
  await page.click('#pages-toggle');
  await page.waitForFunction(() => document.querySelector('#thumbs .thumb canvas')?.width === 96 *
    devicePixelRatio);
  assert.equal(await page.locator('#thumbs .thumb').count(), (await state()).layout.pages.length);
  await page.click('#pages-toggle');
  assert.ok(await page.locator('#thumbs').isHidden());
  assert.equal(documentLoads, 1);
});

test('the tab-order list reorders by dragging, as one undo step', async () => {
  await page.click('[data-tool="FormTabOrder"]');
  await settled();
  await page.waitForSelector('#tab-order-list li');
  const order = () => page.locator('#tab-order-list ol').first().locator('li').allTextContents();
  const before = await order();
  await page.locator('#tab-order-list li').nth(0).dragTo(page.locator('#tab-order-list li').nth(2));
  await settled();
  await page.waitForFunction((b) => document.querySelector('#tab-order-list li')?.textContent !==
    b, before[0]);
  const after = await order();
  assert.deepEqual(after.slice(0, 3), [before[1], before[2], before[0]]);
  assert.equal((await state()).undo.at(-1), 'MoveAnnotsFocusOrder');
  await shot('navigation-tab-order.png');
  await page.keyboard.press('Control+z');
  await settled();
  await page.waitForFunction((b) => document.querySelector('#tab-order-list li')?.textContent ===
    b, before[0]);
  assert.deepEqual(await order(), before);
  assert.deepEqual(errors, []);
});
