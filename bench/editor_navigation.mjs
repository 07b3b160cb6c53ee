// How fast the editor's page lets a person find their way, in Debian's chromium:
//   - opening a form to the first painted page (the IRS 1040 of the corpus by default);
//   - a zoom step to a sharp view (every page in sight drawn at the new zoom);
//   - the field list of a form of 2,000 fields (made here): from the page's request for it
//     to the frame that shows it, and filtered as a person types;
//   - a drag of 50 selected widgets over a page of 400 (made here): each pointer move, from
//     the event to the ghosts and guides laid out where it leads.
//
//   node bench/editor_navigation.mjs [--qfforms build/Tools/qfforms/qfforms]
//                                    [--form FORM.pdf] [--runs 5] [--fields 2000]
//
// Prints the median and worst of each in milliseconds.

import {mkdtempSync, rmSync, writeFileSync} from 'node:fs';
import {createRequire} from 'node:module';
import {tmpdir} from 'node:os';
import {dirname, join, resolve} from 'node:path';
import {fileURLToPath} from 'node:url';
import {formOf, manyFields, startEditor} from '../tests/web/harness.mjs';

const root = resolve(dirname(fileURLToPath(import.meta.url)), '..');
const args = process.argv.slice(2);
const option = (name, fallback) => {
  const i = args.indexOf(name);
  return i >= 0 ? args[i + 1] : fallback;
};
const qfforms = resolve(option('--qfforms', join(root, 'build/Tools/qfforms/qfforms')));
const form = resolve(option('--form', join(root, '../shared/corpus/pdfjs-irs-f1040-prefilled.pdf')));
const runs = Number(option('--runs', '5'));
const fieldCount = Number(option('--fields', '2000'));
const {chromium} = createRequire(join(root, 'Web', 'package.json'))('playwright-core');

// One page of 400 fields: a block of 50 (10 x 5) at the top, the one dragged, and 350
// below (14 x 25) for it to snap to.
function dragPage() {
  const fields = [];
  for (let i = 0; i < 50; ++i) {
    const x = 40 + (i % 10) * 52, top = 750 - Math.floor(i / 10) * 20;
    fields.push({name: `block.f${i}`, rect: [x, top - 14, x + 40, top]});
  }
  for (let i = 0; i < 350; ++i) {
    const x = 30 + (i % 14) * 40, top = 600 - Math.floor(i / 14) * 18;
    fields.push({name: `rest.f${i}`, rect: [x, top - 12, x + 36, top]});
  }
  return formOf([fields]);
}

const sharp = () => [...document.querySelectorAll('.page[data-visible]')].every((e) => {
  const c = e.querySelector('canvas');
  return c.width > 0 && Math.abs(c.width / devicePixelRatio - e.getBoundingClientRect().width) < 2;
}) && !document.body.hasAttribute('data-busy');

function summary(name, values) {
  const sorted = [...values].sort((a, b) => a - b);
  const median = sorted[Math.floor(sorted.length / 2)];
  console.log(`${name.padEnd(34)} median ${median.toFixed(1).padStart(7)} ms   worst ` +
    `${sorted.at(-1).toFixed(1).padStart(7)} ms   (${values.length} runs)`);
}

const folder = mkdtempSync(join(tmpdir(), 'qf-bench-nav-'));
const browser = await chromium.launch(
  {executablePath: '/usr/bin/chromium', headless: true, args: ['--no-sandbox']});
try {
  const firstPaint = [], zoom = [], listDrawn = [], filtered = [];
  const editor = await startEditor(qfforms, form, folder);
  for (let r = 0; r < runs; ++r) {
    const page = await browser.newPage({viewport: {width: 1280, height: 1000}});
    const start = Date.now();
    await page.goto(editor.url);
    await page.waitForFunction(() =>
      document.querySelector('.page[data-page="0"] canvas')?.width > 0, null, {timeout: 30000});
    firstPaint.push(Date.now() - start);
    await page.waitForFunction(sharp);
    // From the click as the page sees it to the first frame in which the view is sharp
    // (the driver's own round trips before it dispatches the click are not the editor's).
    for (const button of ['#zoom-in', '#zoom-out']) {
      await page.evaluate((selector) => document.querySelector(selector).addEventListener(
          'click', () => { window.clickedAt = performance.now(); }, {capture: true, once: true}),
      button);
      await page.click(button);
      zoom.push(await page.evaluate(`new Promise((ok) => {
        const sharp = ${sharp};
        const check = () => sharp() ? ok(performance.now() - window.clickedAt)
                                    : requestAnimationFrame(check);
        check();
      })`));
    }
    await page.close();
  }
  editor.proc.kill();

  const many = join(folder, 'many.pdf');
  writeFileSync(many, manyFields(fieldCount), 'latin1');
  const big = await startEditor(qfforms, many, folder);
  for (let r = 0; r < runs; ++r) {
    const page = await browser.newPage({viewport: {width: 1280, height: 1000}});
    await page.goto(big.url);
    // From the page's request for the list to the first frame that shows its rows in
    // sight, the list as long as its n fields and their branches.
    const drawn = await page.evaluate((n) => new Promise((ok) => {
      const check = () => {
        const tree = document.querySelector('#fields .tree');
        if (!tree?.querySelector('li[data-field]') || tree.scrollHeight < n * 18) {
          return requestAnimationFrame(check);
        }
        const asked = performance.getEntriesByType('resource')
          .find((e) => e.name.includes('/api/fields')).startTime;
        requestAnimationFrame(() => ok(performance.now() - asked));
      };
      check();
    }), fieldCount);
    listDrawn.push(drawn);
    for (const text of ['group1', 'f4', 'group39.f49']) {
      filtered.push(await page.evaluate((value) => {
        const input = document.getElementById('field-filter');
        const t0 = performance.now();
        input.value = value;
        input.dispatchEvent(new Event('input'));
        document.body.getBoundingClientRect(); // the layout it leads to
        return performance.now() - t0;
      }, text));
    }
    await page.close();
  }
  big.proc.kill();
  const dragged = [];
  const dragForm = join(folder, 'drag.pdf');
  writeFileSync(dragForm, dragPage(), 'latin1');
  const dragEditor = await startEditor(qfforms, dragForm, folder);
  for (let r = 0; r < runs; ++r) {
    const page = await browser.newPage({viewport: {width: 1280, height: 1000}});
    await page.goto(dragEditor.url);
    await page.waitForFunction(() => document.querySelectorAll('.overlay rect.widget').length >= 400);
    // A rubber band around the block selects its 50 widgets.
    const box = await page.evaluate(() => {
      const rects = [...document.querySelectorAll('.overlay rect.widget')]
        .filter((e) => e.dataset.field.startsWith('block.')).map((e) => e.getBoundingClientRect());
      return {left: Math.min(...rects.map((b) => b.left)), top: Math.min(...rects.map((b) => b.top)),
        right: Math.max(...rects.map((b) => b.right)), bottom: Math.max(...rects.map((b) => b.bottom)),
        first: rects[0]};
    });
    await page.mouse.move(box.left - 4, box.top - 4);
    await page.mouse.down();
    await page.mouse.move(box.right + 4, box.bottom + 4, {steps: 4});
    await page.mouse.up();
    await page.waitForFunction(() => /\b50\b/.test(document.getElementById('marked-count').textContent));
    // Each move of the drag: from the event to the end of the page's handling of it and
    // the layout it leads to.
    await page.evaluate(() => {
      window.moves = [];
      window.addEventListener('pointermove', () => { window.movedAt = performance.now(); },
        {capture: true});
      window.addEventListener('pointermove', () => {
        document.body.getBoundingClientRect();
        window.moves.push(performance.now() - window.movedAt);
      });
    });
    const x = box.first.left + box.first.width / 2, y = box.first.top + box.first.height / 2;
    await page.mouse.move(x, y);
    await page.mouse.down();
    for (let k = 1; k <= 40; ++k) await page.mouse.move(x + k * 3, y + k * 2);
    dragged.push(...(await page.evaluate(() => window.moves)).slice(1));
    await page.keyboard.press('Escape');
    await page.mouse.up();
    await page.close();
  }
  dragEditor.proc.kill();

  summary('open to first painted page', firstPaint);
  summary('zoom step to a sharp view', zoom);
  summary(`field list of ${fieldCount}, asked to drawn`, listDrawn);
  summary(`filter ${fieldCount} fields`, filtered);
  summary('drag 50 widgets, one pointer move', dragged);
} finally {
  await browser.close();
  rmSync(folder, {recursive: true, force: true});
}
