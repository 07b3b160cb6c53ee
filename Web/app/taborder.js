// The tab-order list beside the tab-order tool: each page's widgets in the order the Tab
// key visits them (their order in the page's /Annots); dragging one to another place is
// one undoable "MoveAnnotsFocusOrder".

import {getText} from './api.js';
import {addTexts, t, translate} from './texts.js';

addTexts({
  en: {tabOrderList: 'Tab order', tabOrderHint: 'Drag a field to its place in the order.',
    pageHeading: 'Page {0}'},
  ja: {tabOrderList: 'タブ順序', tabOrderHint: 'フィールドをドラッグして順序を変えます。',
    pageHeading: '{0} ページ'},
});

let send = null;
let shownKey = null;

function section() {
  let s = document.getElementById('tab-order-list');
  if (!s) {
    s = document.createElement('section');
    s.id = 'tab-order-list';
    s.hidden = true;
    s.innerHTML = '<h3 data-text="tabOrderList"></h3><p class="hint" data-text="tabOrderHint"></p>' +
      '<div class="pages"></div>';
    document.getElementById('panel-empty').before(s);
    translate(s);
  }
  return s;
}

// Per page, its widgets as [position in /Annots, field name], in that order.
function byPage(fields) {
  const pages = new Map();
  for (const f of fields) {
    for (const [page, index] of f.widgets) {
      if (!pages.has(page)) pages.set(page, []);
      pages.get(page).push([index, f.name]);
    }
  }
  for (const list of pages.values()) list.sort((a, b) => a[0] - b[0]);
  return [...pages.entries()].sort((a, b) => a[0] - b[0]);
}

function pageList(page, widgets) {
  const box = document.createElement('div');
  const heading = document.createElement('h4');
  heading.textContent = t('pageHeading', page + 1);
  const ol = document.createElement('ol');
  ol.dataset.page = page;
  let dragged = null;
  widgets.forEach(([index, name], k) => {
    const li = document.createElement('li');
    li.draggable = true;
    li.dataset.index = index;
    li.textContent = name;
    li.title = name;
    li.addEventListener('dragstart', (ev) => {
      dragged = k;
      ev.dataTransfer.effectAllowed = 'move';
      ev.dataTransfer.setData('text/plain', name);
    });
    li.addEventListener('dragover', (ev) => {
      if (dragged === null) return;
      ev.preventDefault();
      li.classList.toggle('drop-after', k > dragged);
      li.classList.toggle('drop-before', k < dragged);
    });
    li.addEventListener('dragleave', () => li.classList.remove('drop-before', 'drop-after'));
    li.addEventListener('drop', (ev) => {
      ev.preventDefault();
      li.classList.remove('drop-before', 'drop-after');
      const from = dragged;
      dragged = null;
      if (from === null || from === k) return;
      // Moved down, it goes after the widget dropped on; up, before it.
      const target = k > from ? (widgets[k + 1]?.[0] ?? widgets[k][0] + 1) : widgets[k][0];
      send({command: {name: 'MoveAnnotsFocusOrder', page, positions: [widgets[from][0]],
        target}});
    });
    li.addEventListener('dragend', () => {
      dragged = null;
    });
    ol.append(li);
  });
  box.append(heading, ol);
  return box;
}

// Shown while the tab-order tool is active; step(body) sends a step.
export function renderTabOrder(state, step) {
  send = step;
  const s = section();
  const active = !state.locked && state.tool === 'FormTabOrder';
  s.hidden = !active;
  if (!active) {
    shownKey = null;
    return;
  }
  document.getElementById('panel-empty').hidden = true;
  const key = JSON.stringify([state.annotationsRevision, state.lang]);
  if (key === shownKey) return;
  shownKey = key;
  getText('/api/fields').then((text) => {
    if (shownKey !== key) return;
    const pages = byPage(JSON.parse(text).fields);
    s.querySelector('.pages').replaceChildren(...pages.map(([page, w]) => pageList(page, w)));
  }, () => {});
}
