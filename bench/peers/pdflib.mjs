// The W1 and W2 workloads of bench/workloads.py done with pdf-lib 1.17.1, as its users
// would: the form API for every field, and save() with its defaults (field appearances
// made on save, object streams on).
//
//   node bench/peers/pdflib.mjs w1 PAGES FIELDS OUT.pdf
//   node bench/peers/pdflib.mjs w2 IN.pdf OUT.pdf
//
// What pdf-lib cannot do: make a signature field (W1 leaves those out; verify with
// skip=("signature",)), give a push button an action, or rename a field. For the last two
// the script goes one level down, to the field's own dictionaries (acroField). Radio
// buttons get the on-states "0", "1", "2" (indices into the group's /Opt, which holds the
// option names "1", "2", "3"); pdf-lib does not let them be chosen.

import { readFileSync, writeFileSync } from 'node:fs';
import { PDFDocument, PDFName, PDFString } from 'pdf-lib';

const KINDS = ['text', 'checkbox', 'radio', 'combo', 'list', 'button', 'signature'];
const NAMES = {
  text: 'Text', checkbox: 'CheckBox', radio: 'RadioGroup', combo: 'ComboBox',
  list: 'ListBox', button: 'PrintButton', signature: 'Signature',
};
const OPTIONS = ['One', 'Two', 'Three'];
const SCRIPT = 'this.print(true);';
const RENAME_PREFIX = 'W2_';
const COLUMNS = 10, ROWS = 34;

// workloads.layout: [kind, page, rects] of field i, rects being [x0, y0, x1, y1].
function layout(pages, i) {
  const kind = KINDS[i % KINDS.length];
  const slot = Math.floor(i / pages);
  const x = 20 + (slot % COLUMNS) * 58;
  const top = 770 - Math.floor(slot / COLUMNS) * 22;
  let rects;
  if (kind === 'checkbox') rects = [[x, top - 14, x + 14, top]];
  else if (kind === 'radio') rects = [0, 17, 34].map((d) => [x + d, top - 14, x + d + 14, top]);
  else rects = [[x, top - 16, x + 50, top]];
  return [kind, i % pages, rects];
}

const box = ([x0, y0, x1, y1]) => ({ x: x0, y: y0, width: x1 - x0, height: y1 - y0 });

async function w1(pages, fields, out) {
  if (fields > pages * COLUMNS * ROWS) {
    throw new Error(`${fields} fields do not fit on ${pages} pages`);
  }
  const doc = await PDFDocument.create();
  for (let p = 0; p < pages; p++) doc.addPage([612, 792]);
  const pageList = doc.getPages();
  const form = doc.getForm();
  const counts = {};
  for (let i = 0; i < fields; i++) {
    const [kind, p, rects] = layout(pages, i);
    if (kind === 'signature') continue; // no signature fields in pdf-lib
    counts[kind] = (counts[kind] || 0) + 1;
    const name = NAMES[kind] + counts[kind];
    const page = pageList[p];
    if (kind === 'text') {
      form.createTextField(name).addToPage(page, box(rects[0]));
    } else if (kind === 'checkbox') {
      form.createCheckBox(name).addToPage(page, box(rects[0]));
    } else if (kind === 'radio') {
      const group = form.createRadioGroup(name);
      rects.forEach((r, j) => group.addOptionToPage(String(j + 1), page, box(r)));
    } else if (kind === 'combo' || kind === 'list') {
      const choice = kind === 'combo' ? form.createDropdown(name) : form.createOptionList(name);
      choice.addOptions(OPTIONS);
      choice.addToPage(page, box(rects[0]));
    } else if (kind === 'button') {
      const button = form.createButton(name);
      button.addToPage('Print', page, box(rects[0]));
      // No API for actions: the widget's /A is set directly.
      const action = doc.context.obj({ S: 'JavaScript', JS: PDFString.of(SCRIPT) });
      button.acroField.getWidgets()[0].dict.set(PDFName.of('A'), action);
    }
  }
  writeFileSync(out, await doc.save());
}

async function w2(input, out) {
  const doc = await PDFDocument.load(readFileSync(input));
  // No API for renaming: the field's own name /T is set directly (W1 names are flat).
  for (const field of doc.getForm().getFields()) {
    field.acroField.setPartialName(RENAME_PREFIX + field.getName());
  }
  writeFileSync(out, await doc.save());
}

const [command, ...args] = process.argv.slice(2);
if (command === 'w1' && args.length === 3) await w1(Number(args[0]), Number(args[1]), args[2]);
else if (command === 'w2' && args.length === 2) await w2(args[0], args[1]);
else {
  console.error('usage: pdflib.mjs w1 PAGES FIELDS OUT.pdf | w2 IN.pdf OUT.pdf');
  process.exit(2);
}
