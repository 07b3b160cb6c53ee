// Laying out a form quickly: the rubber band that selects the widgets it touches, dragging
// several selected widgets together, snapping drags to other widgets' edges and centres
// (with guide lines) and to an optional grid, the arrange menu (align, distribute, same
// size), placing copies in rows and columns, and the context menu of widgets.
//
// The host moves, resizes and draws single widgets from the pointer events it gets; snapping
// only changes the pointer position the page sends it. A drag of several widgets, and the
// rubber band, stay in the page until the release, which sends one step.

import {addTexts, t} from './texts.js';

addTexts({
  en: {
    arrange: 'Arrange',
    arrangeHint: 'Align, space or size the selected fields after the first one selected',
    alignLeft: 'Align left edges',
    alignRight: 'Align right edges',
    alignTop: 'Align top edges',
    alignBottom: 'Align bottom edges',
    alignCentres: 'Align horizontal centres',
    alignMiddles: 'Align vertical centres',
    distributeAcross: 'Distribute horizontally',
    distributeDown: 'Distribute vertically',
    sameWidth: 'Same width',
    sameHeight: 'Same height',
    sameSize: 'Same size',
    placeMultiple: 'Place multiple…',
    placeTitle: 'Place multiple copies',
    placeRows: 'Rows',
    placeColumns: 'Columns',
    placeGapRight: 'Gap across (pt)',
    placeGapDown: 'Gap down (pt)',
    placeOk: 'Place',
    cancel: 'Cancel',
    grid: 'Grid',
    gridSize: 'Grid size in points',
    properties: 'Properties',
    tabOrderTool: 'Tab order',
    groupRadio: 'Group as radio buttons',
    menuLabel: 'Field',
  },
  ja: {
    arrange: '整列',
    arrangeHint: '選択したフィールドを最初に選択したフィールドに合わせて整列・配置・サイズ変更します',
    alignLeft: '左端を揃える',
    alignRight: '右端を揃える',
    alignTop: '上端を揃える',
    alignBottom: '下端を揃える',
    alignCentres: '左右中央を揃える',
    alignMiddles: '上下中央を揃える',
    distributeAcross: '左右に均等配置',
    distributeDown: '上下に均等配置',
    sameWidth: '幅を揃える',
    sameHeight: '高さを揃える',
    sameSize: 'サイズを揃える',
    placeMultiple: '複数配置…',
    placeTitle: 'コピーを複数配置',
    placeRows: '行数',
    placeColumns: '列数',
    placeGapRight: '横の間隔 (pt)',
    placeGapDown: '縦の間隔 (pt)',
    placeOk: '配置',
    cancel: 'キャンセル',
    grid: 'グリッド',
    gridSize: 'グリッドの間隔（ポイント）',
    properties: 'プロパティ',
    tabOrderTool: 'タブ順序',
    groupRadio: 'ラジオボタンにまとめる',
    menuLabel: 'フィールド',
  },
});

// How close, in screen pixels, an edge or centre must come to another's to snap to it.
export const SNAP_PIXELS = 5;

const arrangements = [
  ['alignLeft', 2], ['alignRight', 2], ['alignTop', 2], ['alignBottom', 2],
  ['alignCentres', 2], ['alignMiddles', 2], null,
  ['distributeAcross', 3], ['distributeDown', 3], null,
  ['sameWidth', 2], ['sameHeight', 2], ['sameSize', 2],
];

let ctx = null; // {view, state(), pages, step, post, focusPanel, paste, edit}
let drag = null; // the drag under way the page follows (see press)
const grid = {on: false, size: 10};

// ---- geometry ----

// page i's widgets as the overlay shows them: {index, box: {left, top, right, bottom}} in
// the page's pixels, in /Annots order (an overlay drawn at another zoom is scaled to this one).
function widgetsOf(i) {
  const page = ctx.pages[i];
  const svg = page?.annotations.querySelector(':scope > svg');
  if (!svg) return [];
  const r = pageRect(i);
  const k = svg.viewBox.baseVal?.width ? (r.right - r.left) / svg.viewBox.baseVal.width : 1;
  return [...svg.querySelectorAll('rect.widget[data-index]')].map((e) => {
    const x = Number(e.getAttribute('x')) * k, y = Number(e.getAttribute('y')) * k;
    return {index: Number(e.dataset.index), box: {left: x, top: y,
      right: x + Number(e.getAttribute('width')) * k,
      bottom: y + Number(e.getAttribute('height')) * k}};
  });
}

const inside = (b, x, y, slack = 0) =>
  x >= b.left - slack && x <= b.right + slack && y >= b.top - slack && y <= b.bottom + slack;

function pageRect(i) {
  return ctx.state().layout.pages[i];
}

// The top-most widget of page i under page pixel (x, y), as the host finds it.
function widgetAt(i, x, y) {
  return widgetsOf(i).findLast((w) => inside(w.box, x, y)) ?? null;
}

const selectedOn = (i) => (ctx.state().selection?.all ?? []).filter((w) => w.page === i);
const isSelected = (i, index) => selectedOn(i).some((w) => w.index === index);

// ---- snapping ----

// The lines the drag d may snap to on its page: the edges and centres of the widgets not
// dragged, across (x) and down (y); found once a drag, since they stay where they are.
function targets(d) {
  if (d.lines) return d.lines;
  const xs = [], ys = [];
  for (const w of widgetsOf(d.page)) {
    if (d.skip.has(w.index)) continue;
    const b = w.box;
    xs.push(b.left, (b.left + b.right) / 2, b.right);
    ys.push(b.top, (b.top + b.bottom) / 2, b.bottom);
  }
  return d.lines = {xs, ys};
}

// The shift along one axis that brings one of values onto a line within SNAP_PIXELS (the
// nearest), or onto the grid when it is on; with the line for a guide.
function snapAxis(values, lines, gridValue) {
  let best = null;
  for (const v of values) {
    for (const line of lines) {
      const d = line - v;
      if (Math.abs(d) <= SNAP_PIXELS && (!best || Math.abs(d) < Math.abs(best.shift))) {
        best = {shift: d, guide: line};
      }
    }
  }
  if (best) return best;
  if (grid.on && gridValue !== undefined) {
    const cell = grid.size * ctx.state().layout.zoom;
    return {shift: Math.round(gridValue / cell) * cell - gridValue, guide: null};
  }
  return {shift: 0, guide: null};
}

// Snaps box (page pixels) that the drag d moves as a whole: its edges and centres to the
// lines, else its top left corner to the grid.
function snapBox(d, box) {
  const {xs, ys} = targets(d);
  const x = snapAxis([box.left, (box.left + box.right) / 2, box.right], xs, box.left);
  const y = snapAxis([box.top, (box.top + box.bottom) / 2, box.bottom], ys, box.top);
  return {dx: x.shift, dy: y.shift, guides: {x: x.guide, y: y.guide}};
}

// Snaps the point (page pixels) with which the drag d moves a corner or an edge: to the
// lines, else to the grid. Only the axes in d.axes move.
function snapPoint(d, x, y) {
  const {xs, ys} = targets(d);
  const axes = d.axes ?? {x: true, y: true};
  const sx = axes.x ? snapAxis([x], xs, x) : {shift: 0, guide: null};
  const sy = axes.y ? snapAxis([y], ys, y) : {shift: 0, guide: null};
  return {dx: sx.shift, dy: sy.shift, guides: {x: sx.guide, y: sy.guide}};
}

// ---- the layer of guides, bands and ghosts over each page ----

function layer(i) {
  const element = ctx.pages[i].element;
  let l = element.querySelector(':scope > .layout-layer');
  if (!l) {
    l = document.createElement('div');
    l.className = 'layout-layer';
    l.append(document.createElementNS('http://www.w3.org/2000/svg', 'svg'));
    element.append(l);
  }
  showGrid(l);
  return l;
}

function showGrid(l) {
  const cell = grid.size * (ctx.state()?.layout.zoom ?? 1);
  l.classList.toggle('grid', grid.on);
  l.style.backgroundSize = grid.on ? `${cell}px ${cell}px` : '';
}

// Draws the guides and the ghosts of page i (ghosts: boxes in page pixels).
function drawMarks(i, guides = {}, ghosts = []) {
  const svg = layer(i).firstElementChild;
  const ns = 'http://www.w3.org/2000/svg';
  const shapes = [];
  const r = pageRect(i);
  const line = (x1, y1, x2, y2) => {
    const l = document.createElementNS(ns, 'line');
    Object.entries({x1, y1, x2, y2}).forEach(([k, v]) => l.setAttribute(k, v));
    l.setAttribute('class', 'guide');
    shapes.push(l);
  };
  if (guides.x !== null && guides.x !== undefined) line(guides.x, 0, guides.x, r.bottom - r.top);
  if (guides.y !== null && guides.y !== undefined) line(0, guides.y, r.right - r.left, guides.y);
  if (ghosts.length) {
    const group = document.createElementNS(ns, 'g');
    group.setAttribute('class', 'ghosts');
    for (const b of ghosts) {
      const g = document.createElementNS(ns, 'rect');
      g.setAttribute('class', 'ghost');
      g.setAttribute('x', b.left);
      g.setAttribute('y', b.top);
      g.setAttribute('width', b.right - b.left);
      g.setAttribute('height', b.bottom - b.top);
      group.append(g);
    }
    shapes.push(group);
  }
  svg.replaceChildren(...shapes);
}

// Moves the ghosts drawn on page i by d (page pixels) and shows guides there: a move of a
// drag touches two attributes however many widgets it drags.
function moveGhosts(i, guides, d) {
  const svg = ctx.pages[i].element.querySelector(':scope > .layout-layer > svg');
  const group = svg?.querySelector(':scope > g.ghosts');
  if (!group) return;
  group.setAttribute('transform', `translate(${d[0]} ${d[1]})`);
  const r = pageRect(i);
  const ends = {x: (v) => [v, 0, v, r.bottom - r.top], y: (v) => [0, v, r.right - r.left, v]};
  for (const axis of ['x', 'y']) {
    let l = svg.querySelector(`:scope > line.guide-${axis}`);
    const v = guides[axis];
    if (v === null || v === undefined) {
      l?.remove();
      continue;
    }
    if (!l) {
      l = document.createElementNS('http://www.w3.org/2000/svg', 'line');
      l.setAttribute('class', `guide guide-${axis}`);
      svg.prepend(l);
    }
    ends[axis](v).forEach((value, k) => l.setAttribute(['x1', 'y1', 'x2', 'y2'][k], value));
  }
}

function clearMarks() {
  ctx.pages.forEach((p, i) => {
    const l = p.element.querySelector(':scope > .layout-layer');
    if (l) drawMarks(i);
  });
  ctx.view.querySelector('.band')?.remove();
}

// Shows the grid on every page as the setting says (after a zoom too).
export function refreshGrid() {
  ctx.pages.forEach((_, i) => layer(i));
}

// ---- drags ----

function viewPoint(ev) {
  const box = ctx.view.getBoundingClientRect();
  return [ev.clientX - box.left, ev.clientY - box.top];
}

function pageAt(x, y) {
  return ctx.state().layout.pages.findIndex(
    (r) => x >= r.left && x < r.right && y >= r.top && y < r.bottom);
}

// A left press in select mode or with a creation tool. Answers true when the page keeps
// the drag to itself (a rubber band, several widgets dragged); otherwise it follows the
// drag the host makes, to snap its pointer (see pointerAt).
export function press(ev, selecting) {
  drag = null;
  const [x, y] = viewPoint(ev);
  const i = pageAt(x, y);
  const add = ev.shiftKey || ev.ctrlKey || ev.metaKey;
  if (i < 0) {
    if (!selecting) return false;
    drag = {kind: 'band', from: [x, y], to: [x, y], add};
    return true;
  }
  const r = pageRect(i);
  const px = x - r.left, py = y - r.top;
  if (!selecting) {
    drag = {kind: 'point', page: i, skip: new Set(), axes: {x: true, y: true}};
    return false;
  }
  // Shift+click on a widget adds it or takes it out; beside widgets it starts a band.
  if (add) {
    if (widgetAt(i, px, py)) return false;
    drag = {kind: 'band', from: [x, y], to: [x, y], add};
    return true;
  }
  // A grip of the selection resizes its widget: the edges beside the grip follow.
  const grip = [...ctx.pages[i].live.querySelectorAll('.selection rect.grip')].find((g) => {
    const gx = Number(g.getAttribute('x')), gy = Number(g.getAttribute('y'));
    return inside({left: gx, top: gy, right: gx + Number(g.getAttribute('width')),
      bottom: gy + Number(g.getAttribute('height'))}, px, py, 1);
  });
  const first = ctx.state().selection;
  if (grip && first?.page === i) {
    const w = widgetsOf(i).find((k) => k.index === first.index);
    if (w) {
      const gx = Number(grip.getAttribute('x')) + Number(grip.getAttribute('width')) / 2;
      const gy = Number(grip.getAttribute('y')) + Number(grip.getAttribute('height')) / 2;
      const near = (a, b) => Math.abs(a - b) < 2;
      const edgeX = near(gx, w.box.left) ? w.box.left : near(gx, w.box.right) ? w.box.right : null;
      const edgeY = near(gy, w.box.top) ? w.box.top : near(gy, w.box.bottom) ? w.box.bottom : null;
      drag = {kind: 'point', page: i, skip: new Set([w.index]), from: [px, py],
        grab: [edgeX === null ? 0 : edgeX - px, edgeY === null ? 0 : edgeY - py],
        axes: {x: edgeX !== null, y: edgeY !== null}};
      return false;
    }
  }
  const hit = widgetAt(i, px, py);
  if (!hit) {
    drag = {kind: 'band', from: [x, y], to: [x, y], add};
    return true;
  }
  const many = (ctx.state().selection?.all ?? []).length > 1;
  if (many && isSelected(i, hit.index)) {
    const ghosts = new Map();
    for (const w of ctx.state().selection.all) {
      const box = widgetsOf(w.page).find((k) => k.index === w.index)?.box;
      if (box) ghosts.set(w.page, [...(ghosts.get(w.page) ?? []), box]);
    }
    drag = {kind: 'group', page: i, index: hit.index, from: [x, y], by: [0, 0], moved: false,
      ghosts, box: hit.box,
      skip: new Set(selectedOn(i).map((w) => w.index))};
    return true;
  }
  drag = {kind: 'box', page: i, from: [px, py], box: hit.box, skip: new Set([hit.index])};
  return false;
}

// The view pixel to send the host for the press of ev: snapped for a creation tool's
// first corner, as it is for a move (a press that grabs a widget or a grip stays where it
// is, so that it grabs what is under it).
export function pressAt(ev) {
  if (drag?.kind === 'point' && !drag.from) return pointerAt(ev);
  const [x, y] = viewPoint(ev);
  return [Math.floor(x), Math.floor(y)];
}

// The view pixel to send the host for the pointer of ev, snapped while a drag is followed
// (Alt turns snapping off); guides show what it snapped to.
export function pointerAt(ev) {
  const [x, y] = viewPoint(ev);
  if (!drag || drag.kind === 'band' || drag.kind === 'group') return [Math.floor(x), Math.floor(y)];
  const i = drag.page;
  const r = pageRect(i);
  const px = x - r.left, py = y - r.top;
  let s = {dx: 0, dy: 0, guides: {}};
  if (!ev.altKey) {
    if (drag.kind === 'box') {
      const d = [px - drag.from[0], py - drag.from[1]];
      const b = drag.box;
      s = snapBox(drag, {left: b.left + d[0], top: b.top + d[1], right: b.right + d[0],
        bottom: b.bottom + d[1]});
    } else {
      const grab = drag.grab ?? [0, 0];
      s = snapPoint(drag, px + grab[0], py + grab[1]);
    }
  }
  drawMarks(i, s.guides);
  return [Math.round(x + s.dx), Math.round(y + s.dy)];
}

// A pointer move of a drag the page keeps. Answers whether it was one.
export function move(ev) {
  if (!drag || (drag.kind !== 'band' && drag.kind !== 'group')) return false;
  const [x, y] = viewPoint(ev);
  if (drag.kind === 'band') {
    drag.to = [x, y];
    let band = ctx.view.querySelector('.band');
    if (!band) {
      band = document.createElement('div');
      band.className = 'band';
      ctx.view.append(band);
    }
    Object.assign(band.style, {
      left: `${Math.min(drag.from[0], x)}px`, top: `${Math.min(drag.from[1], y)}px`,
      width: `${Math.abs(x - drag.from[0])}px`, height: `${Math.abs(y - drag.from[1])}px`,
    });
    return true;
  }
  let d = [x - drag.from[0], y - drag.from[1]];
  drag.moved ||= Math.hypot(...d) > 2;
  let guides = {};
  if (!ev.altKey) {
    const b = drag.box;
    const s = snapBox(drag, {left: b.left + d[0], top: b.top + d[1], right: b.right + d[0],
      bottom: b.bottom + d[1]});
    d = [d[0] + s.dx, d[1] + s.dy];
    guides = s.guides;
  }
  drag.by = d;
  if (!drag.drawn) {
    drag.drawn = true;
    for (const [i, boxes] of drag.ghosts) drawMarks(i, {}, boxes);
  }
  for (const i of drag.ghosts.keys()) moveGhosts(i, i === drag.page ? guides : {}, d);
  return true;
}

// The release of a drag. Answers whether the page kept the drag (and sent its step).
export function release(ev) {
  const d = drag;
  drag = null;
  clearMarks();
  if (!d || (d.kind !== 'band' && d.kind !== 'group')) return false;
  if (d.kind === 'band') {
    const [x, y] = viewPoint(ev);
    ctx.step({selectArea: {from: d.from, to: [x, y], add: d.add}});
  } else if (!d.moved) {
    // A click on one of several selected widgets selects it alone.
    ctx.step({select: {page: d.page, index: d.index}});
  } else if (d.by[0] !== 0 || d.by[1] !== 0) {
    const zoom = ctx.state().layout.zoom;
    ctx.step({move: {by: [d.by[0] / zoom, d.by[1] / zoom]}});
  }
  return true;
}

// Escape: a drag the page keeps ends with nothing done. Answers whether there was one.
export function cancel() {
  const kept = drag && (drag.kind === 'band' || drag.kind === 'group');
  drag = null;
  clearMarks();
  return Boolean(kept);
}

// ---- menus ----

let openMenu = null; // {element, opener}: the menu shown and the button that opened it

export function closeMenu() {
  if (!openMenu) return;
  const {element, opener} = openMenu;
  openMenu = null;
  element.remove();
  opener?.setAttribute('aria-expanded', 'false');
  (opener ?? ctx.view).focus({preventScroll: true});
}

// A menu of items ({text, run, disabled} or null for a rule) at client point (x, y),
// worked with the pointer or the keys: arrows, Home, End, Enter, Escape.
function showMenu(items, x, y, label, opener = null) {
  closeMenu();
  const menu = document.createElement('div');
  menu.className = 'menu';
  menu.setAttribute('role', 'menu');
  menu.setAttribute('aria-label', label);
  for (const item of items) {
    if (!item) {
      const rule = document.createElement('div');
      rule.setAttribute('role', 'separator');
      menu.append(rule);
      continue;
    }
    const b = document.createElement('button');
    b.type = 'button';
    b.setAttribute('role', 'menuitem');
    b.dataset.item = item.id;
    b.textContent = item.text;
    b.disabled = Boolean(item.disabled);
    b.tabIndex = -1;
    b.addEventListener('click', () => {
      closeMenu();
      item.run();
    });
    menu.append(b);
  }
  document.body.append(menu);
  const width = menu.offsetWidth, height = menu.offsetHeight;
  menu.style.left = `${Math.max(0, Math.min(x, innerWidth - width - 4))}px`;
  menu.style.top = `${Math.max(0, Math.min(y, innerHeight - height - 4))}px`;
  openMenu = {element: menu, opener};
  opener?.setAttribute('aria-expanded', 'true');
  const enabled = () => [...menu.querySelectorAll('button:not(:disabled)')];
  enabled()[0]?.focus();
  menu.addEventListener('keydown', (ev) => {
    ev.stopPropagation();
    const list = enabled();
    const at = list.indexOf(document.activeElement);
    const go = {
      ArrowDown: () => list[(at + 1) % list.length],
      ArrowUp: () => list[(at - 1 + list.length) % list.length],
      Home: () => list[0],
      End: () => list.at(-1),
    }[ev.key];
    if (go) {
      ev.preventDefault();
      go()?.focus();
    } else if (ev.key === 'Escape' || ev.key === 'Tab') {
      ev.preventDefault();
      closeMenu();
    }
  });
}

// A press anywhere outside the menu closes it.
document.addEventListener('pointerdown', (ev) => {
  if (openMenu && !openMenu.element.contains(ev.target)) closeMenu();
}, true);

function arrangeItems() {
  const count = (ctx.state().selection?.all ?? []).length;
  return arrangements.map((a) => a && {id: a[0], text: t(a[0]), disabled: count < a[1],
    run: () => ctx.step({arrange: a[0]})});
}

function fieldItems() {
  const s = ctx.state();
  const all = s.selection?.all ?? [];
  const none = all.length === 0;
  const groupable = all.length > 0 && all.every((w) => w.kind === 'check' || w.kind === 'radio');
  return [
    {id: 'cut', text: t('cut'), disabled: none, run: () => ctx.edit('Cut')},
    {id: 'copy', text: t('copy'), disabled: none, run: () => ctx.edit('Copy')},
    {id: 'paste', text: t('paste'), run: ctx.paste},
    {id: 'duplicate', text: t('duplicate'), disabled: none, run: () => ctx.edit('DuplicateCopy')},
    {id: 'delete', text: t('delete'), disabled: none, run: () => ctx.edit('Delete')},
    null,
    {id: 'properties', text: t('properties'), disabled: none, run: ctx.focusPanel},
    {id: 'tab-order', text: t('tabOrderTool'), run: () => ctx.step({tool: 'FormTabOrder'})},
    {id: 'group-radio', text: t('groupRadio'), disabled: !groupable, run: ctx.group},
    {id: 'place-multiple', text: t('placeMultiple'), disabled: all.length !== 1,
      run: openPlaceDialog},
  ];
}

// A right press in select mode: the widget under it joins nothing but becomes the
// selection unless it is selected already, then the menu opens there.
export async function contextMenu(ev) {
  const [x, y] = viewPoint(ev);
  const i = pageAt(x, y);
  if (i >= 0) {
    const r = pageRect(i);
    const hit = widgetAt(i, x - r.left, y - r.top);
    if (hit && !isSelected(i, hit.index)) {
      const answer = await ctx.step({select: {page: i, index: hit.index}});
      if (!answer.ok) return;
    }
  }
  showMenu(fieldItems(), ev.clientX, ev.clientY, t('menuLabel'));
}

// The context menu from the keyboard (the menu key, Shift+F10): at the first selected
// widget, else at the top left of the view.
export function contextMenuFromKeys() {
  const s = ctx.state().selection;
  const box = ctx.view.getBoundingClientRect();
  let x = box.left + 20, y = box.top + 20;
  if (s) {
    const w = widgetsOf(s.page).find((k) => k.index === s.index);
    const r = pageRect(s.page);
    if (w) {
      x = box.left + r.left + w.box.left;
      y = box.top + r.top + w.box.bottom;
    }
  }
  showMenu(fieldItems(), x, y, t('menuLabel'));
}

// ---- place multiple ----

function openPlaceDialog() {
  const dialog = document.getElementById('place-dialog');
  dialog.querySelector('.problem').textContent = '';
  dialog.showModal();
  dialog.querySelector('input').select();
}

// ---- the toolbar ----

export function updateLayoutTools(disabled) {
  const count = (ctx.state().selection?.all ?? []).length;
  document.getElementById('arrange').disabled = disabled || count < 2;
  document.getElementById('place-multiple').disabled = disabled || count !== 1;
}

// context: {view, pages, state(), step(body), edit(name), paste(), group(), focusPanel()}.
export function setupLayout(context) {
  ctx = context;
  const saved = JSON.parse(localStorage.getItem('qf-grid') ?? 'null');
  if (saved && Number.isFinite(saved.size) && saved.size >= 1) Object.assign(grid, saved);
  const on = document.getElementById('grid-on');
  const size = document.getElementById('grid-size');
  on.checked = grid.on;
  size.value = grid.size;
  const keep = () => {
    localStorage.setItem('qf-grid', JSON.stringify(grid));
    if (ctx.state()) refreshGrid();
  };
  on.addEventListener('change', () => {
    grid.on = on.checked;
    keep();
  });
  size.addEventListener('change', () => {
    const v = Number(size.value);
    if (Number.isFinite(v) && v >= 1 && v <= 500) grid.size = v;
    size.value = grid.size;
    keep();
  });
  const arrange = document.getElementById('arrange');
  arrange.addEventListener('click', () => {
    if (openMenu?.opener === arrange) return closeMenu();
    const box = arrange.getBoundingClientRect();
    showMenu(arrangeItems(), box.left, box.bottom + 2, t('arrange'), arrange);
  });
  document.getElementById('place-multiple').addEventListener('click', openPlaceDialog);
  const dialog = document.getElementById('place-dialog');
  dialog.querySelector('form').addEventListener('submit', async (ev) => {
    ev.preventDefault();
    const value = (name) => Number(dialog.querySelector(`[name=${name}]`).value);
    const answer = await ctx.step({placeMultiple: {rows: value('rows'), columns: value('columns'),
      gap: [value('gapRight'), value('gapDown')]}});
    if (answer.ok) dialog.close();
    else dialog.querySelector('.problem').textContent = answer.body.error ?? '';
  });
  dialog.querySelector('.cancel').addEventListener('click', () => dialog.close());
}
