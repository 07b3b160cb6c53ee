// The field list: the form's fields as a tree of their hierarchical names, with kind,
// page and marks for required and calculated fields. A click selects the field's first
// widget and brings it into sight; a double click (or F2) renames it in place through the
// undoable "Widget_Rename"; the filter keeps the fields whose names hold its text.
// Only the rows in sight are in the page: a form of thousands of fields is listed and
// filtered in the time a screenful takes.

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
let reveal = null; // the field to bring into sight once its widget is selected

// Every row of the tree, branches before what they hold: {part, depth, field, name (the
// field's full name in lowercase, for the filter), parent (a row's index, or -1)}.
let rows = [];
// The indexes of the rows the filter keeps, in order.
let kept = [];
let selected = new Set(); // the names of the fields whose rows show as selected
const drawn = new Map(); // row index to its element, for the rows in sight
const kRowHeight = 18; // pixels; the CSS gives each row this height
const kSpare = 10; // rows drawn beyond each edge, so that a short scroll shows no gap
let words = null; // texts of the language, looked up once per list

function panel() {
  let aside = document.getElementById('fields');
  if (!aside) {
    aside = document.createElement('aside');
    aside.id = 'fields';
    aside.innerHTML = `<h2 data-text="fieldList"></h2>
      <input type="search" id="field-filter" autocomplete="off" data-title="filter">
      <p class="empty" data-text="noFields" hidden></p><ul class="tree" role="tree"></ul>`;
    document.querySelector('main').prepend(aside);
    aside.querySelector('#field-filter').addEventListener('input', (ev) => filter(ev.target.value));
    const ul = aside.querySelector('.tree');
    listen(ul);
    let queued = false;
    ul.addEventListener('scroll', () => {
      if (queued) return;
      queued = true;
      requestAnimationFrame(() => {
        queued = false;
        draw();
      });
    }, {passive: true});
    new ResizeObserver(() => draw()).observe(ul);
    translate(aside);
  }
  return aside;
}

// The rows of the tree of names: a node per name part; a field is the node of its full name.
function flatten(list) {
  const root = {children: new Map()};
  for (const f of list) {
    let node = root;
    for (const part of f.name.split('.')) {
      if (!node.children.has(part)) node.children.set(part, {part, children: new Map()});
      node = node.children.get(part);
    }
    node.field = f;
  }
  const out = [];
  const walk = (node, depth, parent) => {
    for (const child of node.children.values()) {
      const index = out.length;
      out.push({part: child.part, depth, field: child.field,
        name: child.field?.name.toLowerCase(), parent});
      walk(child, depth + 1, index);
    }
  };
  walk(root, 0, -1);
  return out;
}

// One row, made by cloning.
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

function rowElement(index, position) {
  const r = rows[index];
  const li = itemTemplate.cloneNode(true);
  const item = li.firstChild;
  item.firstChild.textContent = r.part;
  li.dataset.row = index;
  li.style.top = `${position * kRowHeight}px`;
  li.style.setProperty('--depth', r.depth);
  li.setAttribute('aria-level', r.depth + 1);
  const f = r.field;
  if (f) {
    li.dataset.field = f.name;
    item.title = `${f.name} — ${words.hint}`;
    item.tabIndex = 0;
    if (selected.has(f.name)) item.classList.add('selected');
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
    item.append(marks);
  }
  return li;
}

// Puts the kept rows in sight (and a few beyond) into the list, keeping those already
// there: a row being renamed stays while it is in sight. The filter empties the list
// first, as it moves rows.
function draw() {
  const ul = document.querySelector('#fields .tree');
  if (!ul || !words) return;
  const first = Math.max(0, Math.floor(ul.scrollTop / kRowHeight) - kSpare);
  const last = Math.min(kept.length,
    Math.ceil((ul.scrollTop + ul.clientHeight) / kRowHeight) + kSpare);
  const wanted = new Map();
  for (let position = first; position < last; ++position) wanted.set(kept[position], position);
  for (const [index, li] of drawn) {
    if (wanted.has(index)) continue;
    li.remove();
    drawn.delete(index);
  }
  // In the page in the list's order, so that Tab goes down the rows: the window moves by
  // rows above or below those it keeps.
  const above = document.createDocumentFragment(), below = document.createDocumentFragment();
  const firstKept = Math.min(...[...drawn.keys()].map((index) => wanted.get(index)));
  for (const [index, position] of wanted) {
    if (drawn.has(index)) continue;
    const li = rowElement(index, position);
    drawn.set(index, li);
    (position < firstKept ? above : below).append(li);
  }
  ul.prepend(above);
  ul.append(below);
}

// The field of the row an event came from.
function fieldOf(ev) {
  const li = ev.target.closest('.item')?.parentElement;
  return li ? rows[li.dataset.row]?.field : null;
}

function listen(ul) {
  ul.addEventListener('click', (ev) => {
    const f = fieldOf(ev);
    if (f) choose(f);
  });
  ul.addEventListener('dblclick', (ev) => {
    const f = fieldOf(ev);
    if (f) rename(ev.target.closest('li'), f);
  });
  ul.addEventListener('keydown', (ev) => {
    const f = fieldOf(ev);
    if (f && ev.key === 'Enter') choose(f);
    if (f && ev.key === 'F2') rename(ev.target.closest('li'), f);
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

// Keeps the fields whose full names hold text (any case), with the branches above them.
function filter(text) {
  const needle = text.trim().toLowerCase();
  if (!needle) {
    kept = rows.map((_, i) => i);
  } else {
    const keep = new Uint8Array(rows.length);
    rows.forEach((r, i) => {
      if (r.name === undefined || !r.name.includes(needle)) return;
      for (let k = i; k >= 0 && !keep[k]; k = rows[k].parent) keep[k] = 1;
    });
    kept = [];
    keep.forEach((on, i) => on && kept.push(i));
  }
  const ul = document.querySelector('#fields .tree');
  ul.style.setProperty('--rows', kept.length);
  for (const li of drawn.values()) li.remove();
  drawn.clear();
  draw();
}

// Scrolls the list, when need be, so that the row of the field named name is in the
// middle of it.
function showRow(name) {
  const ul = document.querySelector('#fields .tree');
  const position = kept.findIndex((index) => rows[index].field?.name === name);
  if (!ul || position < 0) return;
  const top = position * kRowHeight;
  if (top >= ul.scrollTop && top + kRowHeight <= ul.scrollTop + ul.clientHeight) return;
  ul.scrollTop = top - (ul.clientHeight - kRowHeight) / 2;
  draw();
}

function markSelected(state) {
  const names = new Set((state.selection?.all ?? (state.selection ? [state.selection] : []))
    .map((w) => w.field));
  for (const li of drawn.values()) {
    const item = li.querySelector('.item');
    const on = names.has(li.dataset.field);
    if (item && item.classList.contains('selected') !== on) item.classList.toggle('selected', on);
  }
  const [only] = names;
  const picked = names.size === 1 && !selected.has(only);
  selected = names;
  // A widget picked on the page brings its field's row into sight.
  if (picked && !reveal) showRow(only);
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
      const fields = JSON.parse(text).fields;
      rows = flatten(fields);
      words = {hint: t('renameHint'), kinds: {}};
      aside.querySelector('.empty').hidden = fields.length > 0;
      markSelected(state);
      filter(aside.querySelector('#field-filter').value);
    }, () => {});
  }
  markSelected(state);
}
