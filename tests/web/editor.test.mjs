// The form editor's page in a real browser against a real `qfforms edit`:
//
//   node tests/web/editor.test.mjs --qfforms BIN --sample BLANK.pdf --artifacts DIR
//
// BLANK.pdf is a document whose first page has no annotations; a copy of it in a temporary
// folder is edited as a person would with the mouse and the keyboard: fields drawn, one
// moved and the move undone, one renamed in the panel, a combo box's options typed into
// its table, the tab order set, the form previewed and saved as a new file that pypdf
// then reads. A page served from another port of 127.0.0.1, in the same browser, then tries
// to change the tool and the language and to save over the files: all refused, nothing
// changed. Then an encrypted copy whose permissions keep its form from changing: the
// page asks for its password, says when it is wrong or not the owner's, opens it with the
// owner password, and the field drawn is saved with the encryption kept. DIR receives a
// screenshot of every stage and the servers' logs.

import assert from 'node:assert/strict';
import {execFileSync} from 'node:child_process';
import fs from 'node:fs';
import http from 'node:http';
import path from 'node:path';
import {after, before, describe, test} from 'node:test';
import {launch, root, settled as settledIn, setUp, stage as stageIn, startEditor as start}
  from './harness.mjs';

const {qfforms, artifacts, folder, file: original, options} = setUp('form.pdf');

let editor; // {proc, exited, url, port, token}
let browser;
let page;
let page0; // page 0's rectangle in the view at zoom 1
const pageErrors = []; // script errors, and whatever the Content-Security-Policy refused
const watch = (p) => {
  p.on('pageerror', (e) => pageErrors.push(e.message));
  p.on('console', (m) => /Content Security Policy/.test(m.text()) && pageErrors.push(m.text()));
};

// ---- the server ----

const startEditor = (file = original, logName = 'server.log') =>
  start(qfforms, file, folder, {log: path.join(artifacts, logName)});

function api(route, {body, token = editor.token} = {}) {
  return fetch(`http://127.0.0.1:${editor.port}${route}`, {
    method: body === undefined ? 'GET' : 'POST',
    headers: token ? {'X-QF-Token': token} : {},
    body: body === undefined ? undefined : JSON.stringify(body),
  });
}

async function serverState() {
  return (await (await api('/api/state')).json()).state;
}

// ---- the page ----

const settled = () => settledIn(page);

const shot = (name) => page.screenshot({path: path.join(artifacts, name)});

// Mouse positions in the browser window for view pixels.
async function inWindow(...points) {
  const box = await page.locator('#view').boundingBox();
  return points.map(([x, y]) => [box.x + x, box.y + y]);
}

async function drag(from, to) {
  const [a, b] = await inWindow(from, to);
  await page.mouse.move(...a);
  await page.mouse.down();
  await page.mouse.move(...b, {steps: 8});
  await page.mouse.up();
  await settled();
}

async function click(at, modifier) {
  const [a] = await inWindow(at);
  if (modifier) await page.keyboard.down(modifier);
  await page.mouse.click(...a);
  if (modifier) await page.keyboard.up(modifier);
  await settled();
}

async function press(selector) {
  await page.click(selector);
  await settled();
}

// The widgets page 0's overlay shows, in /Annots order, in the page's pixels.
function overlayWidgets() {
  const widgets = '.page[data-page="0"] g.annotations rect.widget';
  return page.$$eval(widgets, (rects) => rects.map((r) => ({
    field: r.dataset.field, kind: r.dataset.kind, marked: r.classList.contains('marked'),
    ...Object.fromEntries(['x', 'y', 'width', 'height'].map((a) => [a, Number(r.getAttribute(a))])),
  })));
}

async function widget(field) {
  const w = (await overlayWidgets()).find((r) => r.field === field);
  assert.ok(w, `the overlay shows ${field}`);
  return w;
}

// View pixels of page 0's pixel (x, y) at zoom 1, and of (dx, dy) into widget w.
const at = ([x, y]) => [page0.left + x, page0.top + y];
const on = (w, dx, dy) => at([w.x + dx, w.y + dy]);

// Steps of one session run in order; a failing one leaves its picture.
const stage = (name, f) => stageIn(name, f, () => page, artifacts);

// What pypdf reads of page 0's annotations (of an encrypted file, with password): subtype,
// full name, field type (inherited), normalized rectangle and options.
function readAnnots(file, password = '') {
  const script = `
import json, sys
from pypdf import PdfReader
reader = PdfReader(sys.argv[1])
if reader.is_encrypted and not reader.decrypt(sys.argv[2]):
    sys.exit("the password is wrong")
def up(n):
    while n is not None:
        yield n
        n = n["/Parent"].get_object() if "/Parent" in n else None
def inherited(a, key):
    return next((n[key] for n in up(a) if key in n), None)
out = []
for a in [ref.get_object() for ref in reader.pages[0].get("/Annots", [])]:
    r, opt = [float(v) for v in a["/Rect"]], inherited(a, "/Opt")
    out.append({"subtype": a["/Subtype"], "type": inherited(a, "/FT"),
                "name": ".".join(reversed([str(n["/T"]) for n in up(a) if "/T" in n])),
                "rect": [min(r[0], r[2]), min(r[1], r[3]), max(r[0], r[2]), max(r[1], r[3])],
                "opt": opt and [[str(v) for v in o] if isinstance(o, list) else str(o)
                                for o in opt]})
print(json.dumps(out))
`;
  return JSON.parse(execFileSync('/usr/bin/python3', ['-c', script, file, password],
    {encoding: 'utf8'}));
}

// ---- the session ----

// Fields drawn on page 0 at zoom 1, in pixels from its top left: none in row order.
const drawn = {
  TextFieldCreate: {from: [100, 600], to: [300, 624]},
  CheckBoxCreate: {from: [100, 100], to: [118, 118]},
  ComboBoxCreate: {from: [100, 300], to: [250, 322]},
};
const names = {}; // tool → the name of the field it drew

before(async () => {
  editor = await startEditor();
  browser = await launch();
  page = await (await browser.newContext({viewport: {width: 1280, height: 1000}})).newPage();
  watch(page);
  await page.goto(editor.url);
  await page.waitForSelector('.page[data-page="0"] .overlay svg >> nth=0');
  await settled();
});

after(async () => {
  await browser?.close();
  if (editor?.proc.exitCode === null) editor.proc.kill('SIGKILL');
  fs.rmSync(folder, {recursive: true, force: true});
});

// The server's own doors (token, Host, paths, saves): tests/tools/editor_server.py.
describe('an editing session in the browser', () => {
  stage('canvas and overlay lie on the host\'s page rectangle, zoomed and turned', async () => {
    const fits = async () => {
      const {layout} = await serverState();
      const r = layout.pages[0];
      const boxes = ['#view', '.page[data-page="0"]', '[data-page="0"] svg >> nth=0'];
      const [view, p, svg] = await Promise.all(boxes.map((s) => page.locator(s).boundingBox()));
      const canvas = await page.locator('[data-page="0"] canvas')
        .evaluate((c) => [c.width, c.height]);
      assert.deepEqual([p.x - view.x, p.y - view.y, p.width, p.height],
        [r.left, r.top, r.right - r.left, r.bottom - r.top]);
      assert.deepEqual([svg.x, svg.y, svg.width, svg.height], [p.x, p.y, p.width, p.height]);
      assert.ok(Math.abs(canvas[0] - p.width) <= 1 && Math.abs(canvas[1] - p.height) <= 1);
      return [layout.zoom, layout.rotation, p.width > p.height];
    };
    // With a slow server (under ThreadSanitizer) page 0's overlay was once found without a
    // box just after a turn had settled: the layout is read until it holds, for 5 s.
    const fitted = async (expected) => {
      for (const until = Date.now() + 5000; ;) {
        try {
          return assert.deepEqual(await fits(), expected);
        } catch (e) {
          if (Date.now() > until) throw e;
          await page.waitForTimeout(100);
        }
      }
    };
    await fitted([1, 0, false]);
    page0 = (await serverState()).layout.pages[0];
    await shot('01-open.png');
    await press('#zoom-in');
    await press('#rotate');
    await fitted([1.25, 90, true]);
    for (let i = 0; i < 3; ++i) await press('#rotate');
    await press('#zoom-out');
    await fitted([1, 0, false]);
  });

  stage('dragging with a creation tool draws a field under the pointer', async () => {
    for (const [tool, {from, to}] of Object.entries(drawn)) {
      await press(`[data-tool="${tool}"]`);
      assert.equal(await page.getAttribute(`[data-tool="${tool}"]`, 'aria-pressed'), 'true');
      const before = await overlayWidgets();
      await drag(at(from), at(to));
      const widgets = await overlayWidgets();
      assert.equal(widgets.length, before.length + 1, `${tool} drew one widget`);
      const w = widgets.find((r) => !before.some((b) => b.field === r.field));
      names[tool] = w.field;
      const {tool: active, selection} = await serverState();
      assert.deepEqual([active, selection?.field], ['WidgetEdit', w.field], 'the new field is selected');
      assert.ok([[w.x, from[0]], [w.y, from[1]], [w.x + w.width, to[0]], [w.y + w.height, to[1]]]
        .every(([got, want]) => Math.abs(got - want) <= 1), `${tool}: ${JSON.stringify(w)}`);
    }
    assert.deepEqual((await overlayWidgets()).map((w) => w.kind), ['Tx', 'Btn', 'Ch']);
    assert.equal(await page.locator('.overlay g#page').count(), 0, 'the overlay hides the page');
    // A name longer than its widget is cut at the widget's edge; the outline's title has it whole.
    const clips = await page.$$eval('.page[data-page="0"] svg.label-clip', (svgs) => svgs.map((c) =>
      [c.getAttribute('width'), c.previousElementSibling.getAttribute('width'),
        c.previousElementSibling.querySelector('title').textContent]));
    assert.deepEqual(clips.map(([w, rect]) => w === rect), [true, true, true]);
    assert.deepEqual(clips.map(([, , title]) => title), Object.values(names));
    await shot('02-fields.png');
  });

  stage('a drag in select mode moves the widget, arrows nudge it, Ctrl+Z undoes', async () => {
    await press('[data-tool=""]');
    const text = await widget(names.TextFieldCreate);
    await drag(on(text, 50, 10), on(text, 90, 40));
    const moved = await widget(names.TextFieldCreate);
    assert.deepEqual([moved.x - text.x, moved.y - text.y, moved.width], [40, 30, text.width]);
    assert.equal(await page.getAttribute('#undo', 'title'), 'Undo move');
    await shot('03-moved.png');
    await page.keyboard.press('Control+z');
    await settled();
    const back = await widget(names.TextFieldCreate);
    assert.deepEqual([back.x, back.y], [text.x, text.y]);
    await shot('04-undone.png');
    // Keys go to the host from the view, not from the panel: an arrow moves by a point,
    // with Shift by ten.
    await page.keyboard.press('ArrowRight');
    await settled();
    await page.keyboard.press('Shift+ArrowDown');
    await settled();
    const nudged = await widget(names.TextFieldCreate);
    assert.deepEqual([nudged.x - text.x, nudged.y - text.y], [1, 10]);
    await page.locator('#tool-sheet [data-property="FieldName"] input').press('ArrowLeft');
    await settled();
    assert.equal((await widget(names.TextFieldCreate)).x, nudged.x);
    await press('#undo');
    await press('#undo');
    assert.deepEqual((await serverState()).undo.length, 3, 'each nudge is one step');
  });

  stage('Escape ends a drag where it began, with nothing to undo', async () => {
    const before = await serverState();
    const text = await widget(names.TextFieldCreate);
    const frames = () => page.locator('.page[data-page="0"] polygon.frame').count();
    for (const tool of [null, 'TextFieldCreate']) {
      if (tool) await press(`[data-tool="${tool}"]`);
      const framed = await frames();
      const [a, b] = await inWindow(on(text, 20, 5), on(text, 70, 200));
      await page.mouse.move(...a);
      await page.mouse.down();
      await page.mouse.move(...b, {steps: 5});
      await settled();
      await page.keyboard.press('Escape');
      await page.mouse.move(b[0] + 30, b[1] + 30, {steps: 3});
      await page.mouse.up();
      await settled();
      const {undo} = await serverState();
      assert.deepEqual(undo, before.undo, `${tool ?? 'a move'}: nothing done`);
      const same = await widget(names.TextFieldCreate);
      assert.deepEqual([same.x, same.y, (await overlayWidgets()).length], [text.x, text.y, 3]);
      assert.equal(await frames(), framed, 'no frame left');
    }
    await press('[data-tool=""]');
  });

  stage('the panel renames the selected field', async () => {
    await click(on(await widget(names.TextFieldCreate), 20, 5));
    const steps = [];
    const count = (r) => r.url().endsWith('/api/step') && steps.push(r.postDataJSON());
    page.on('request', count);
    const input = page.locator('#tool-sheet [data-property="FieldName"] input');
    assert.equal(await input.inputValue(), names.TextFieldCreate);
    await input.fill('Customer');
    await input.press('Enter');
    await settled();
    names.TextFieldCreate = 'Customer';
    await widget('Customer');
    page.off('request', count);
    assert.deepEqual(steps, [{set: {property: 'FieldName', value: 'Customer'}}]);
    assert.equal(await page.textContent('#doc-modified'), ' *');
    await shot('05-renamed.png');
    // The rename is one step to undo and redo.
    assert.equal(await page.getAttribute('#undo', 'title'), 'Undo rename');
    await page.keyboard.press('Control+z');
    await settled();
    assert.equal(await input.inputValue(), 'Text1');
    await page.keyboard.press('Control+y');
    await settled();
    await widget('Customer');
  });

  stage('the combo box takes its options from the table', async () => {
    await click(on(await widget(names.ComboBoxCreate), 20, 5));
    const row = page.locator('#tool-sheet [data-property="ComboOptList"]');
    for (let i = 0; i < 3; ++i) await row.locator('.add-row').click();
    const cells = row.locator('tbody input');
    const options = [['English', 'en'], ['Japanese', 'ja'], ['French', 'fr']];
    for (let i = 0; i < 6; ++i) await cells.nth(i).fill(options[i >> 1][i & 1]);
    await row.locator('tbody tr').nth(2).locator('.remove-row').click(); // a change of mind
    await row.locator('.apply').click();
    await settled();
    const sheet = (await serverState()).sheet.find((r) => r.name === 'ComboOptList');
    assert.deepEqual(sheet.value, options.slice(0, 2));
    const shown = await cells.evaluateAll((c) => c.map((i) => i.value));
    assert.deepEqual(shown, options.slice(0, 2).flat());
    await shot('06-options.png');
    // The new list is one step: undone, the field has no options again; redone, the two.
    assert.equal(await page.getAttribute('#undo', 'title'), 'Undo option list');
    const list = async () => (await serverState()).sheet.find((r) => r.name === 'ComboOptList').value;
    await press('#undo');
    assert.deepEqual(await list(), []);
    await press('#redo');
    assert.deepEqual(await list(), options.slice(0, 2));
  });

  stage('Shift+click selects more widgets: arrows, Delete and Undo take them together', async () => {
    const box = await widget(names.CheckBoxCreate), combo = await widget(names.ComboBoxCreate);
    await click(on(box, 9, 9));
    await click(on(combo, 20, 5), 'Shift');
    const all = async () => (await serverState()).selection.all.map((w) => w.field);
    assert.deepEqual(await all(), [names.CheckBoxCreate, names.ComboBoxCreate]);
    assert.ok((await widget(names.ComboBoxCreate)).marked && (await widget(names.CheckBoxCreate)).marked);
    assert.equal(await page.textContent('#marked-count'), '2 selected');
    const depth = (await serverState()).undo.length;
    await page.keyboard.press('ArrowLeft');
    await settled();
    assert.deepEqual([(await widget(names.CheckBoxCreate)).x, (await widget(names.ComboBoxCreate)).x],
      [box.x - 1, combo.x - 1]);
    await page.keyboard.press('Delete');
    await settled();
    assert.deepEqual((await overlayWidgets()).map((w) => w.field), ['Customer']);
    assert.equal((await serverState()).undo.length, depth + 2);
    await press('#undo');
    await press('#undo');
    assert.deepEqual([(await widget(names.CheckBoxCreate)).x, (await widget(names.ComboBoxCreate)).x],
      [box.x, combo.x]);
    // Grouping as radio buttons takes check boxes and radio buttons only.
    await click(on(box, 9, 9));
    await click(on(combo, 20, 5), 'Shift');
    await press('#group-radio');
    assert.equal(await page.textContent('#message'), 'The fields could not be grouped as radio ' +
      `buttons. Only check boxes and radio buttons can be grouped as radio buttons; ${names.ComboBoxCreate} is a combo box.`);
    await click(on(combo, 20, 5), 'Shift'); // out again
    assert.deepEqual(await all(), [names.CheckBoxCreate]);
  });

  stage('a refused step is said in the page\'s language over the pages, which stay put', async () => {
    const before = await page.locator('.page[data-page="0"]').boundingBox();
    await press('#paste'); // nothing was copied
    assert.equal(await page.textContent('#message'), 'The clipboard holds no field: copy one first.');
    assert.deepEqual(await page.locator('.page[data-page="0"]').boundingBox(), before);
    await shot('07-message.png');
    await press('[data-tool=""]');
    assert.equal(await page.textContent('#message'), '');
    await page.selectOption('#lang', 'ja');
    await settled();
    await press('#paste');
    assert.equal(await page.textContent('#message'),
      'クリップボードにフィールドがありません。先にフィールドをコピーしてください。');
    await page.selectOption('#lang', 'en');
    await settled();
    // A server that is gone is said so, not as "Failed to fetch".
    await page.route('**/api/step', (route) => route.abort());
    await page.click('[data-tool=""]');
    await page.waitForFunction(() => /does not answer/.test(document.getElementById('message').textContent));
    await page.unroute('**/api/step');
    await press('[data-tool=""]');
  });

  stage('the tab order by rows numbers the widgets top to bottom, a point or two is one row', async () => {
    // A field right of the combo box and a point higher: in the combo box's row, after it.
    await press('[data-tool="TextFieldCreate"]');
    await drag(at([300, 299]), at([400, 321]));
    const extra = (await serverState()).selection.field;
    await press('#tab-rows');
    assert.equal(await page.getAttribute('[data-tool="FormTabOrder"]', 'aria-pressed'), 'true');
    assert.deepEqual((await overlayWidgets()).map((w) => w.field),
      [names.CheckBoxCreate, names.ComboBoxCreate, extra, 'Customer']);
    assert.equal(await page.getAttribute('#undo', 'title'), 'Undo tab order');
    await press('[data-tool=""]');
    await click(on(await widget(extra), 20, 5));
    await press('[data-edit="Delete"]');
    await press('#tab-rows');
    const widgets = await overlayWidgets();
    assert.deepEqual(widgets.map((w) => w.field),
      [names.CheckBoxCreate, names.ComboBoxCreate, 'Customer']);
    // The numbers sit on badges at least 11 pixels high, also on the small check box.
    const badges = await page.$$eval('.page[data-page="0"] g.marks text.text', (texts) =>
      texts.map((e) => [Number(e.getAttribute('font-size')), e.previousElementSibling?.getAttribute('class')]));
    assert.ok(badges.length === 3 && badges.every(([size, c]) => size >= 11 && c === 'badge'));
    const numbers = await page.$$eval('.page[data-page="0"] g.marks text.text', (texts) =>
      texts.map((e) => [e.textContent, e.getAttribute('x'), e.getAttribute('y')].map(Number)));
    assert.deepEqual(numbers.map(([n]) => n).sort(), [1, 2, 3]);
    for (const [n, x, y] of numbers) {
      const w = widgets[n - 1];
      assert.ok(x >= w.x - 1 && x <= w.x + w.width && y >= w.y && y <= w.y + w.height + 1,
        `number ${n} at ${x},${y} lies on ${w.field}`);
    }
    await shot('07-tab-order.png');
  });

  stage('the preview hides the overlays and ignores the pointer', async () => {
    await press('[data-tool=""]');
    const text = await widget('Customer');
    await click(on(text, 20, 5));
    const before = (await serverState()).revision;
    await press('#preview');
    assert.ok(!(await page.isVisible('.page[data-page="0"] .overlay svg >> nth=0')));
    await shot('08-preview.png');
    await drag(on(text, 20, 5), on(text, 80, 65));
    for (const key of ['Delete', 'ArrowLeft', 'Tab', 'Control+z']) await page.keyboard.press(key);
    await settled();
    assert.equal((await serverState()).revision, before);
    const authoring = ['[data-tool="TextFieldCreate"]', '#tab-rows', '#group-radio', '#undo',
      '#paste', '[data-edit="Delete"]'];
    for (const b of authoring) assert.ok(await page.isDisabled(b), `${b} in preview`);
    assert.ok(await page.locator('#panel').evaluate((p) => p.inert));
    await press('#preview');
    assert.ok(await page.isVisible('.page[data-page="0"] .overlay svg >> nth=0'));
    assert.ok(await page.isEnabled('[data-edit="Delete"]') && await page.isEnabled('#undo'));
    assert.ok(!(await page.locator('#panel').evaluate((p) => p.inert)));
  });

  stage('Paste makes a new field beside the copied widget, Paste linked joins its field', async () => {
    await press('[data-tool=""]');
    const box = await widget(names.CheckBoxCreate);
    await click(on(box, 9, 9));
    await press('[data-edit="Copy"]');
    await press('#paste');
    const copy = await widget(`${names.CheckBoxCreate}_2`);
    assert.deepEqual([copy.x - box.x, copy.y - box.y], [10, 10]);
    assert.equal((await serverState()).selection.field, `${names.CheckBoxCreate}_2`);
    await shot('09-pasted.png');
    await page.keyboard.press('Control+Shift+V');
    await settled();
    const linked = (await overlayWidgets()).filter((w) => w.field === names.CheckBoxCreate);
    assert.deepEqual(linked.map((w) => [w.x - box.x, w.y - box.y]), [[0, 0], [20, 20]]);
    const {selection} = await serverState();
    assert.deepEqual([selection.field, selection.index], [names.CheckBoxCreate, 4]);
    await press('#undo');
    await press('#undo');
    assert.equal((await overlayWidgets()).length, 3);
  });

  stage('Tab and Shift+Tab walk the widgets in tab order, round', async () => {
    await press('[data-tool=""]');
    await click(at([500, 700])); // the page, beside the widgets, takes the keys
    const walk = [];
    for (const key of ['Tab', 'Tab', 'Tab', 'Tab', 'Shift+Tab']) {
      await page.keyboard.press(key);
      await settled();
      walk.push((await serverState()).selection.field);
    }
    const [box, combo] = [names.CheckBoxCreate, names.ComboBoxCreate];
    assert.deepEqual(walk, [box, combo, 'Customer', box, 'Customer']);
  });

  stage('closing the tab with changes not saved asks first', async () => {
    assert.equal(await page.textContent('#doc-modified'), ' *');
    const asked = new Promise((resolve) => page.once('dialog', (d) => {
      resolve(d.type());
      d.dismiss();
    }));
    await page.close({runBeforeUnload: true});
    assert.equal(await asked, 'beforeunload');
    assert.ok(!page.isClosed());
  });

  stage('Save as writes the new file beside the document', async () => {
    assert.ok((await page.textContent('#save-folder')).includes(folder));
    await page.fill('#save-as-name', 'edited.pdf');
    await press('#save-as');
    assert.match(await page.textContent('#notice'), /edited\.pdf/);
    assert.equal(await page.textContent('#doc-modified'), '');
    assert.equal(await page.textContent('#doc-name'), 'edited.pdf');
    await shot('10-saved.png');
  });

  stage('Save as asks before it replaces a file, and says why a read-only one stays', async () => {
    const taken = path.join(folder, 'taken.pdf');
    fs.writeFileSync(taken, 'not yet');
    const questions = [];
    const answer = (accept) => page.once('dialog', (d) => {
      questions.push(d.message());
      accept ? d.accept() : d.dismiss();
    });
    await page.fill('#save-as-name', 'taken.pdf');
    answer(false);
    await press('#save-as');
    assert.equal(fs.readFileSync(taken, 'utf8'), 'not yet');
    answer(true);
    await press('#save-as');
    assert.deepEqual(questions, Array(2).fill('taken.pdf exists already. Replace it?'));
    assert.equal(fs.readFileSync(taken).subarray(0, 5).toString(), '%PDF-');
    answer(true);
    await page.fill('#save-as-name', 'edited.pdf');
    await press('#save-as');
    assert.equal(questions.length, 3);
    fs.writeFileSync(path.join(folder, 'other.pdf'), 'other');
    fs.chmodSync(path.join(folder, 'other.pdf'), 0o444);
    answer(true);
    await page.fill('#save-as-name', 'other.pdf');
    await press('#save-as');
    assert.match(await page.textContent('#message'), /other\.pdf could not be saved: the file is read-only/);
    assert.equal(fs.readFileSync(path.join(folder, 'other.pdf'), 'utf8'), 'other');
    assert.equal(await page.textContent('#doc-name'), 'edited.pdf');
  });

  stage('the page raised no script errors', () => assert.deepEqual(pageErrors, []));
});

// What a page of another site does to an editor it finds on this machine: posts that need no
// preflight (fetch without CORS, forms), with the browser's cookies, and a fetch that sends
// a guessed token (which needs a preflight). Sets window.attacked to the outcome of the
// fetches that could read their answers.
function attackingPage(editorOrigin) {
  return `<!doctype html><title>elsewhere</title><iframe name="sink"></iframe><script>
(async () => {
  const target = ${JSON.stringify(editorOrigin)};
  const changes = [['/api/step', {tool: 'TextFieldCreate'}], ['/api/language', {lang: 'ja'}],
    ['/api/save', {replace: true}], ['/api/save', {as: 'form.pdf', replace: true}]];
  const outcome = [];
  for (const [path, body] of changes) {
    await fetch(target + path, {method: 'POST', mode: 'no-cors', credentials: 'include',
      headers: {'Content-Type': 'text/plain'}, body: JSON.stringify(body)}).catch(() => {});
    await fetch(target + path, {method: 'POST', credentials: 'include',
      headers: {'Content-Type': 'application/json', 'X-QF-Token': '0'.repeat(32)},
      body: JSON.stringify(body)}).then((r) => outcome.push(r.status), () => outcome.push('refused'));
  }
  // A form's text/plain body reads as JSON: name {"lang":"ja","x":" value "}.
  for (const [path, body] of changes.slice(1)) {
    const form = document.createElement('form');
    Object.assign(form, {method: 'POST', action: target + path, enctype: 'text/plain', target: 'sink'});
    const input = document.createElement('input');
    input.name = JSON.stringify(body).slice(0, -1) + ',"x":"';
    input.value = '"}';
    form.append(input);
    document.body.append(form);
    const sent = new Promise((resolve) => { document.querySelector('iframe').onload = resolve; });
    form.submit();
    await Promise.race([sent, new Promise((resolve) => setTimeout(resolve, 2000))]);
  }
  window.attacked = outcome;
})();
</script>`;
}

describe('a page served from another port of 127.0.0.1', () => {
  test('cannot change the tool or the language, nor save over the document', async () => {
    const files = ['form.pdf', 'edited.pdf'].map((name) => path.join(folder, name));
    const bytes = files.map((f) => fs.readFileSync(f));
    const before = await serverState();
    const editorOrigin = `http://127.0.0.1:${editor.port}`;
    const attacker = http.createServer((request, response) => {
      response.writeHead(200, {'Content-Type': 'text/html'});
      response.end(attackingPage(editorOrigin));
    });
    await new Promise((resolve) => attacker.listen(0, '127.0.0.1', resolve));
    // What the editor answered the forms' posts (the browser keeps the answers of the
    // fetches from the page: Cross-Origin-Resource-Policy).
    const answers = [];
    let tab;
    try {
      // The same browser holds the editor's cookie; a tab of its own plays the other site.
      tab = await page.context().newPage();
      tab.on('response', (r) => r.url().startsWith(editorOrigin) &&
        r.request().method() === 'POST' && answers.push(r.status()));
      await tab.goto(`http://127.0.0.1:${attacker.address().port}/`);
      const outcome = await tab.waitForFunction(() => window.attacked, null, {timeout: 20000});
      assert.deepEqual(await outcome.jsonValue(), Array(4).fill('refused'));
    } finally {
      await tab?.close();
      attacker.close();
      attacker.closeAllConnections();
    }
    assert.deepEqual(answers, [403, 403, 403]);
    const after = await serverState();
    assert.deepEqual([after.tool, after.lang, after.document, after.undo],
      [before.tool, before.lang, before.document, before.undo]);
    files.forEach((f, i) => assert.ok(fs.readFileSync(f).equals(bytes[i]), `${f} changed`));
  });
});

describe('the end of the session', () => {
  test('SIGINT stops the server cleanly', async () => {
    await browser.close();
    browser = null;
    editor.proc.kill('SIGINT');
    assert.deepEqual(await editor.exited, {code: 0, signal: null});
  });

  test('pypdf reads the saved fields, their places and options in tab order', () => {
    const saved = path.join(folder, 'edited.pdf');
    fs.copyFileSync(saved, path.join(artifacts, 'edited.pdf'));
    // Page pixels at zoom 1 are points, with y running up from the page's bottom.
    const h = page0.bottom - page0.top;
    const rect = ({from, to}) => [from[0], h - to[1], to[0], h - from[1]];
    const expected = [
      ['/Widget', '/Btn', names.CheckBoxCreate, null, rect(drawn.CheckBoxCreate)],
      ['/Widget', '/Ch', names.ComboBoxCreate, [['en', 'English'], ['ja', 'Japanese']],
        rect(drawn.ComboBoxCreate)],
      ['/Widget', '/Tx', 'Customer', null, rect(drawn.TextFieldCreate)],
    ];
    const annots = readAnnots(saved);
    assert.deepEqual(annots.map((a) => [a.subtype, a.type, a.name, a.opt]),
      expected.map((e) => e.slice(0, 4)));
    annots.forEach((a, i) => assert.ok(a.rect.every((v, k) => Math.abs(v - expected[i][4][k]) <= 1),
      `${a.name}: ${a.rect} is ${expected[i][4]}`));
    assert.deepEqual(readAnnots(original), [], 'the original is untouched');
  });
});

describe('an encrypted form whose permissions keep it from changing', () => {
  const locked = path.join(folder, 'locked.pdf');
  const source = path.join(folder, 'locked-source.pdf');
  const encryption = (file) => execFileSync('/usr/bin/python3',
    [path.join(root, 'tests/pdfcore/encryption_dict.py'), file], {encoding: 'utf8'});
  const submit = async (password) => {
    await page.fill('#password-input', password);
    await page.click('#password button[type="submit"]');
  };
  const messageIs = (text) => page.waitForFunction(
    (t) => document.getElementById('password-message').textContent === t, text);

  before(async () => {
    execFileSync('qpdf', ['--encrypt', 'user', 'owner', '256', '--modify=form', '--',
      options.sample, locked]);
    fs.copyFileSync(locked, source);
    editor = await startEditor(locked, 'server-locked.log');
    browser = await launch();
    page = await browser.newPage({viewport: {width: 1280, height: 1000}});
    watch(page);
    await page.goto(editor.url);
  });

  after(() => {
    if (editor?.proc.exitCode === null) editor.proc.kill('SIGKILL');
  });

  stage('the page asks for the password, and says when it is wrong', async () => {
    await page.waitForSelector('#password[open]');
    assert.equal(await page.textContent('#password-why'),
      'locked.pdf is encrypted. Enter its password to open it.');
    assert.equal(await page.locator('.page').count(), 0);
    await page.keyboard.press('Escape');
    assert.ok(await page.isVisible('#password'), 'Escape closed the prompt');
    await submit('wrong');
    await messageIs('The password is wrong.');
    await shot('11-password-wrong.png');
  });

  stage('the user password opens the file, but the prompt asks for the owner password', async () => {
    await submit('user');
    await messageIs('This password opens the document, but it is not the owner password.');
    assert.match(await page.textContent('#password-why'),
      /permissions of locked\.pdf do not allow changing its form/);
    assert.equal((await serverState()).locked, 'owner');
    await shot('12-password-owner.png');
  });

  stage('the owner password opens the form, which is drawn on and saved encrypted', async () => {
    await submit('owner');
    await page.waitForSelector('#password', {state: 'hidden'});
    await page.waitForSelector('.page[data-page="0"] .overlay svg >> nth=0');
    await settled();
    assert.ok(await page.isVisible('#doc-encrypted'));
    page0 = (await serverState()).layout.pages[0];
    await press('[data-tool="TextFieldCreate"]');
    await drag(at(drawn.TextFieldCreate.from), at(drawn.TextFieldCreate.to));
    assert.deepEqual((await overlayWidgets()).map((w) => w.field), ['Text1']);
    await press('#save');
    assert.match(await page.textContent('#notice'), /locked\.pdf/);
    await shot('13-encrypted-saved.png');
    assert.deepEqual(pageErrors, []);
  });

  test('the saved file keeps the encryption and opens with both passwords', async () => {
    await browser.close();
    browser = null;
    editor.proc.kill('SIGINT');
    assert.deepEqual(await editor.exited, {code: 0, signal: null});
    assert.equal(encryption(locked), encryption(source));
    for (const password of ['user', 'owner']) {
      assert.deepEqual(readAnnots(locked, password).map((a) => [a.type, a.name]),
        [['/Tx', 'Text1']], password);
    }
    assert.throws(() => readAnnots(locked, 'wrong'));
  });
});
