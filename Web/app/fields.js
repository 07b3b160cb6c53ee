// The field list: the form's fields as a tree of their hierarchical names, with kind,
// page and marks for required and calculated fields. A click selects the field's first
// widget and brings it into sight; a double click (or F2) renames it in place through the
// undoable "Widget_Rename"; the filter keeps the fields whose names hold its text.

import {getText} from './api.js';
import {addTexts, t, translate} from './texts.js';

addTexts({
  en: {
    fieldList: 'Fields', filter: 'Filter', required: 'Required', calculated: 'Calculated',
    kindtext: 'Text', kindcheck: 'Check box', kindradio: 'Radio', kindpush: 'Button',
    kindcombo: 'Combo', kindlist: 'List', kindsignature: 'Signature',
    pageN: 'p. {0}', noFields: 'The form has no fields.', renameHint: 'Double-click to rename',
  },
  ja: {
    fieldList: 'フィールド', filter: '絞り込み', required: '必須', calculated: '計算',
    kindtext: 'テキスト', kindcheck: 'チェック', kindradio: 'ラジオ', kindpush: 'ボタン',
    kindcombo: 'コンボ', kindlist: 'リスト', kindsignature: '署名',
    pageN: '{0} ページ', noFields: 'フィールドはありません。',
    renameHint: 'ダブルクリックで名前を変更',
  },
});

let send = null;
let shownKey = null;
let fields = [];
let reveal = null; // the field to bring into sight once its widget is selected

function panel() {
  let aside = document.getElementById('fields');
  if (!aside) {
    aside = document.createElement('aside');
    aside.id = 'fields';
    aside.innerHTML = `<h2 data-text="fieldList"></h2>
      <input type="search" id="field-filter" autocomplete="off" data-title="filter">
      <ul class="tree" role="tree"></ul><p class="empty" data-text="noFields" hidden></p>`;
    document.querySelector('main').prepend(aside);
    aside.querySelector('#field-filter').addEventListener('input', (ev) => filter(ev.target.value));
    listen(aside.querySelector('.tree'));
    translate(aside);
  }
  return aside;
}

// The tree of names: a node per name part; a field is the node of its full name.
function tree(list) {
  const root = {children: new Map()};
  for (const f of list) {
    let node = root;
    for (const part of f.name.split('.')) {
      if (!node.children.has(part)) node.children.set(part, {part, children: new Map()});
      node = node.children.get(part);
    }
    node.field = f;
  }
  return root;
}

// One item of the tree, made by cloning: a list of thousands of fields is drawn at once.
const itemTemplate = (() => {
  const li = document.createElement('li');
  li.setAttribute('role', 'treeitem');
  li.innerHTML = '<div class="item"><span class="name"></span></div>';
  return li;
})();
const marksTemplate = (() => {
  const marks = document.createElement('span');
  marks.className = 'marks';
  marks.innerHTML = '<span class="kind"></span>';
  return marks;
})();

// Draws the tree under node into parent; each field's row goes into rows by name, and
// every item into items with the branch items above it (for the filter).
function drawTree(node, parent, above, words) {
  for (const child of node.children.values()) {
    const li = itemTemplate.cloneNode(true);
    const row = li.firstChild;
    row.firstChild.textContent = child.part;
    const f = child.field;
    if (f) {
      li.dataset.field = f.name;
      row.title = `${f.name} — ${words.hint}`;
      row.tabIndex = 0;
      const marks = marksTemplate.cloneNode(true);
      marks.firstChild.className = `kind ${f.kind}`;
      marks.firstChild.textContent = words.kinds[f.kind] ??= t(`kind${f.kind}`);
      if (f.required) marks.append(mark('required', '*'));
      if (f.calculated) marks.append(mark('calculated', '='));
      if (f.widgets.length) {
        const page = document.createElement('span');
        page.className = 'page-no';
        page.textContent = t('pageN', f.widgets[0][0] + 1);
        marks.append(page);
      }
      row.append(marks);
      rows.set(f.name, {li, row, field: f});
    }
    items.push({li, name: f?.name.toLowerCase(), above});
    if (child.children.size) {
      const ul = document.createElement('ul');
      ul.setAttribute('role', 'group');
      drawTree(child, ul, [li, ...above], words);
      li.append(ul);
    }
    parent.append(li);
  }
}

// The field of the row an event came from, with its item.
function rowOf(ev) {
  const field = ev.target.closest('.item')?.parentElement.dataset.field;
  return field === undefined ? null : rows.get(field);
}

function listen(ul) {
  ul.addEventListener('click', (ev) => {
    const r = rowOf(ev);
    if (r) choose(r.field);
  });
  ul.addEventListener('dblclick', (ev) => {
    const r = rowOf(ev);
    if (r) rename(r.li, r.field);
  });
  ul.addEventListener('keydown', (ev) => {
    const r = rowOf(ev);
    if (r && ev.key === 'Enter') choose(r.field);
    if (r && ev.key === 'F2') rename(r.li, r.field);
  });
}

function mark(key, symbol) {
  const m = document.createElement('span');
  m.className = key;
  m.textContent = symbol;
  m.title = t(key);
  return m;
}

async function choose(f) {
  if (!f.widgets.length) return;
  const [page, index] = f.widgets[0];
  reveal = f.name;
  await send({select: {page, index}});
}

function rename(li, f) {
  if (!f.widgets.length || li.querySelector('input.rename')) return;
  const row = li.querySelector('.item');
  const input = document.createElement('input');
  input.className = 'rename';
  input.value = f.name;
  row.replaceWith(input);
  input.focus();
  input.select();
  let done = false;
  const finish = async (commit) => {
    if (done) return;
    done = true;
    const name = input.value.trim();
    input.replaceWith(row);
    if (!commit || !name || name === f.name) return;
    const [page, index] = f.widgets[0];
    await send({command: {name: 'Widget_Rename', widget: {page, index}, newName: name}});
  };
  input.addEventListener('keydown', (ev) => {
    if (ev.key === 'Enter') finish(true);
    if (ev.key === 'Escape') finish(false);
    ev.stopPropagation();
  });
  input.addEventListener('blur', () => finish(true));
}

// Every item of the tree with its lowercase name (fields only) and the branch items
// above it, made when the tree is drawn, so that filtering touches only what changes; and
// each field's row by its name.
let items = [];
const rows = new Map();
let selected = new Set(); // the names of the fields whose rows show as selected

// Shows the fields whose full names hold text (any case), with the branches above them.
function filter(text) {
  const needle = text.trim().toLowerCase();
  const shown = new Set();
  for (const item of items) {
    if (needle && (item.name === undefined || !item.name.includes(needle))) continue;
    shown.add(item.li);
    for (const li of item.above) shown.add(li);
  }
  for (const {li} of items) {
    const hide = !shown.has(li);
    if (li.hidden !== hide) li.hidden = hide;
  }
}

function markSelected(state) {
  const names = new Set((state.selection?.all ?? (state.selection ? [state.selection] : []))
    .map((w) => w.field));
  for (const name of selected) if (!names.has(name)) rows.get(name)?.row.classList.remove('selected');
  for (const name of names) rows.get(name)?.row.classList.add('selected');
  selected = names;
  if (reveal && names.has(reveal)) {
    const outline = [...document.querySelectorAll('.overlay rect.widget')]
      .find((r) => r.dataset.field === reveal);
    (outline ?? document.querySelector(`.page[data-page="${state.selection.page}"]`))
      ?.scrollIntoView({block: 'center', inline: 'nearest'});
    reveal = null;
  }
}

// Follows state; step(body) sends a step. The list is fetched again when the document's
// annotations or its calculation order changed.
export function renderFields(state, step) {
  send = step;
  const aside = panel();
  if (state.locked) return;
  const key = JSON.stringify([state.annotationsRevision, state.calculationOrder, state.lang]);
  if (key !== shownKey) {
    shownKey = key;
    getText('/api/fields').then((text) => {
      if (shownKey !== key) return;
      fields = JSON.parse(text).fields;
      const ul = aside.querySelector('.tree');
      items = [];
      rows.clear();
      selected = new Set();
      const drawn = document.createDocumentFragment();
      drawTree(tree(fields), drawn, [], {hint: t('renameHint'), kinds: {}});
      ul.replaceChildren(drawn);
      aside.querySelector('.empty').hidden = fields.length > 0;
      filter(aside.querySelector('#field-filter').value);
      markSelected(state);
    }, () => {});
  }
  markSelected(state);
}
