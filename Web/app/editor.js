// The form editor's page: the document's pages drawn by pdf.js without their widgets, the
// host's overlay of each page over them, and the person's pointer and keys sent to the
// host in the view pixels of its layout.

import * as pdfjs from '/vendor/pdfjs/pdf.mjs';
import {getText, onBusyChange, post, setAnswerHandler, tracked} from './api.js';
import {renderActions} from './actions.js';
import {renderFields} from './fields.js';
import * as layout from './layout.js';
import {renderPanel} from './panel.js';
import {pdfDocument} from './pdfdoc.js';
import {closePreview, openPreview} from './preview.js';
import {askPassword, closePasswordPrompt} from './password.js';
import {renderTabOrder} from './taborder.js';
import {renderThumbs, toggleThumbs} from './thumbs.js';
import {commandLabel, setLanguage, t, translate} from './texts.js';

pdfjs.GlobalWorkerOptions.workerSrc = '/vendor/pdfjs/pdf.worker.mjs';

const tools = [
  'TextFieldCreate', 'CheckBoxCreate', 'RadioGroupCreate', 'ComboBoxCreate', 'ListBoxCreate',
  'PushButtonCreate', 'PrintButtonCreate', 'EmailButtonCreate', 'SaveButtonCreate',
  'SubmitButtonCreate', 'DigitalSignatureFieldCreate', 'FormTabOrder',
];
const zooms = [0.25, 0.5, 0.75, 1, 1.25, 1.5, 2, 3, 4];
const hostKeys = {Tab: 9, ArrowLeft: 37, ArrowUp: 38, ArrowRight: 39, ArrowDown: 40, Delete: 46};

const $ = (selector) => document.querySelector(selector);
const view = $('#view');

let state = null;
let preview = false;
let focusPage = 0; // the page under the last press: where Paste puts the widget
let marking = false; // a Shift+press in select mode: its moves and release stay in the page
let pressed = false; // a left press went to the host and its release has not
let cancelled = false; // Escape ended the drag: its moves and release stay in the page
let kept = false; // a left press whose drag the page keeps (layout.js: a band, a group move)
let lastMove = '';
// per page: {element, canvas, overlay, annotations, live, loading, again, drawn, drawing}
const pages = [];

onBusyChange((busy) => document.body.toggleAttribute('data-busy', busy));

// ---- state ----

setAnswerHandler((answer, path) => {
  if (answer.body.state) show(answer.body.state);
  // The password prompt says itself what went wrong; a question is asked where it was made.
  const question = answer.status === 409 && (answer.body.signed || answer.body.exists);
  if (!answer.ok && path !== '/api/password' && !question) say(failure(answer));
});

// What to tell the person of a failed request: the server's sentence, or what failed.
function failure(answer) {
  if (answer.status === 0) return t('serverGone');
  return answer.body.error ?? t('requestFailed', answer.status);
}

// Whether the document is open: until then only the password prompt takes input.
const ready = () => state && !state.locked;

function show(s) {
  const languageChanged = state?.lang !== s.lang;
  state = s;
  if (languageChanged) {
    setLanguage(s.lang);
    $('#lang').value = s.lang;
    translate();
  }
  if (s.locked) {
    document.title = `${s.document.name} — qfforms edit`;
    askPassword(s);
    return;
  }
  closePasswordPrompt();
  placePages(s.layout);
  layout.refreshGrid();
  view.dataset.revision = s.revision;
  pages.forEach((p, i) => {
    const stale = p.overlay.dataset.revision !== String(s.revision);
    if (stale && p.element.hasAttribute('data-visible')) loadOverlay(i);
  });
  drawPages();
  updateToolbar();
  renderPanel(s, step);
  renderActions(s, step);
  renderFields(s, step);
  renderTabOrder(s, step);
  renderThumbs(s);
  pages.forEach((_, i) => markWidgets(i));
}

function say(text) {
  $('#message').textContent = text;
}

// The message lies over the pages: a click puts it away.
$('#message').addEventListener('click', () => say(''));

function notice(text) {
  $('#notice').textContent = text;
}

// Sends a step the person asked for; resolves with its answer.
function step(body) {
  say('');
  return post('/api/step', body);
}

// ---- pages ----

// Only the overlays of pages in sight (or nearly) follow every change; the others are
// fetched when they come into sight.
const visibility = new IntersectionObserver((entries) => {
  for (const {target, isIntersecting} of entries) {
    target.toggleAttribute('data-visible', isIntersecting);
    const i = Number(target.dataset.page);
    const stale = target.querySelector('.overlay').dataset.revision !== String(state?.revision);
    if (isIntersecting && stale && pages[i]?.element === target) loadOverlay(i);
    if (isIntersecting && state && !state.locked && pages[i]?.element === target) drawPage(i);
  }
}, {root: $('#scroller'), rootMargin: '200px'});

function placePages(layout) {
  view.style.width = `${layout.width}px`;
  view.style.height = `${layout.height}px`;
  while (pages.length > layout.pages.length) {
    const {element} = pages.pop();
    visibility.unobserve(element);
    element.remove();
  }
  while (pages.length < layout.pages.length) {
    const element = document.createElement('div');
    element.className = 'page';
    element.dataset.page = pages.length;
    const canvas = document.createElement('canvas');
    // The overlay in two layers: the annotations, fetched when the document changed, and
    // what the tools draw, fetched after every change.
    const overlay = document.createElement('div');
    overlay.className = 'overlay';
    const annotations = document.createElement('div');
    const live = document.createElement('div');
    overlay.append(annotations, live);
    element.append(canvas, overlay);
    view.append(element);
    visibility.observe(element);
    pages.push({element, canvas, overlay, annotations, live, loading: false, again: false});
  }
  layout.pages.forEach((r, i) => {
    Object.assign(pages[i].element.style, {
      left: `${r.left}px`, top: `${r.top}px`,
      width: `${r.right - r.left}px`, height: `${r.bottom - r.top}px`,
    });
  });
}

// What page i's canvas shows at zoom (the host keeps a zoom in single precision).
function canvasKey(i, zoom) {
  return JSON.stringify([Math.fround(zoom), state.layout.pages[i].rotation ?? 0]);
}

// Draws the pages in sight whose canvas is out of date; the others wait until they come
// into sight (the page's box keeps the old canvas, stretched, meanwhile).
function drawPages() {
  pages.forEach((p, i) => {
    if (p.element.hasAttribute('data-visible')) drawPage(i);
  });
}

function drawPage(i, zoom = state.layout.zoom) {
  const p = pages[i];
  const key = canvasKey(i, zoom);
  if (p.drawn === key || p.drawing === key) return;
  p.drawing = key;
  const rotation = (((state.layout.pages[i].rotation ?? 0) % 360) + 360) % 360;
  const scale = zoom * devicePixelRatio;
  tracked(async () => {
    try {
      const pdf = await pdfDocument();
      if (p.drawing !== key || i >= pdf.numPages) return;
      const page = await pdf.getPage(i + 1);
      const viewport = page.getViewport({scale, rotation});
      const canvas = document.createElement('canvas');
      canvas.width = Math.round(viewport.width);
      canvas.height = Math.round(viewport.height);
      await page.render({canvas, viewport, annotationMode: pdfjs.AnnotationMode.DISABLE})
        .promise;
      if (p.drawing !== key || pages[i] !== p) return;
      p.canvas.replaceWith(canvas);
      p.canvas = canvas;
      p.drawn = key;
    } catch (e) {
      // A drawing overtaken by another (a new zoom, the document loaded anew) says nothing.
      if (p.drawing === key) {
        say(t('pageFailed', i + 1, e instanceof TypeError ? t('serverGone') : e.message ?? e));
      }
    } finally {
      if (p.drawing === key) p.drawing = null;
    }
  });
}

// Fetches page i's overlay layers, again while the state moved on during the fetch. The
// annotations come again when the document changed; after a zoom alone the page scales
// them at once (they are vector drawings) and fetches them at the new zoom out of the way,
// so that their labels and lines get back their size.
function loadOverlay(i) {
  const p = pages[i];
  if (p.loading) {
    p.again = true;
    return;
  }
  p.loading = true;
  tracked(async () => {
    do {
      p.again = false;
      const {revision, annotationsRevision} = state;
      try {
        const zoom = String(state.layout.zoom);
        const layers = [['live', p.live]];
        const changed = p.overlay.dataset.annotations !== String(annotationsRevision);
        if (changed) layers.push(['annotations', p.annotations]);
        const texts = await Promise.all(
            layers.map(([part]) => getText(`/api/overlay/${i}.svg?part=${part}`)));
        layers.forEach(([, layer], k) => placeSvg(layer, texts[k]));
        p.overlay.dataset.annotations = annotationsRevision;
        if (changed) p.overlay.dataset.zoom = zoom;
        p.overlay.dataset.revision = revision;
        markWidgets(i);
      } catch (e) {
        say(t('pageFailed', i + 1, e instanceof TypeError ? t('serverGone') : e.message ?? e));
      }
    } while (p.again && pages[i] === p);
    p.loading = false;
    if (p.overlay.dataset.zoom !== String(state.layout.zoom)) rescaleAnnotations(i);
  });
}

function rescaleAnnotations(i) {
  const p = pages[i];
  const {annotationsRevision} = state;
  const zoom = String(state.layout.zoom);
  if (p.rescaling === zoom) return;
  p.rescaling = zoom;
  getText(`/api/overlay/${i}.svg?part=annotations`, {quiet: true}).then((text) => {
    if (p.rescaling !== zoom || pages[i] !== p) return;
    p.rescaling = null;
    if (zoom !== String(state.layout.zoom) ||
        p.overlay.dataset.annotations !== String(annotationsRevision)) return;
    placeSvg(p.annotations, text);
    p.overlay.dataset.zoom = zoom;
    markWidgets(i);
  }, () => {
    if (p.rescaling === zoom) p.rescaling = null; // the next zoom or change tries again
  });
}

function placeSvg(layer, text) {
  const svg = new DOMParser().parseFromString(text, 'image/svg+xml').documentElement;
  if (svg.localName !== 'svg') throw new Error('the overlay is no SVG');
  // The overlay names fields of an untrusted document: nothing in it may run.
  svg.querySelectorAll('script, foreignObject').forEach((e) => e.remove());
  for (const e of [svg, ...svg.querySelectorAll('*')]) {
    for (const a of [...e.attributes]) if (/^on|href$/i.test(a.name)) e.removeAttribute(a.name);
  }
  // Each page has groups of the same names: classes, not ids, in one HTML document.
  for (const g of svg.querySelectorAll('g[id]')) {
    g.classList.add(g.id);
    g.removeAttribute('id');
  }
  const shown = document.importNode(svg, true);
  layer.replaceChildren(shown);
  clipLabels(shown);
  badgeNumbers(shown);
}

const svgNs = 'http://www.w3.org/2000/svg';

// Each field name shows inside its widget only (a nested svg clips what overflows); the
// widget's title gives the whole name on hover.
function clipLabels(svg) {
  for (const label of svg.querySelectorAll('text.label')) {
    const box = label.previousElementSibling;
    if (box?.localName !== 'rect') continue;
    const clip = document.createElementNS(svgNs, 'svg');
    clip.setAttribute('class', 'label-clip');
    for (const a of ['x', 'y', 'width', 'height']) clip.setAttribute(a, box.getAttribute(a));
    label.replaceWith(clip);
    label.setAttribute('x', Number(label.getAttribute('x')) - Number(box.getAttribute('x')));
    label.setAttribute('y', Number(label.getAttribute('y')) - Number(box.getAttribute('y')));
    clip.append(label);
    const title = document.createElementNS(svgNs, 'title');
    title.textContent = box.dataset.field ?? label.textContent;
    box.append(title);
  }
}

// The tab-order numbers on badges: at least 11 pixels high, dark on white with a border,
// so that they read on any widget, however small.
function badgeNumbers(svg) {
  for (const text of svg.querySelectorAll('g.marks text.text')) {
    const size = Math.max(11, Number(text.getAttribute('font-size')) || 0);
    text.setAttribute('font-size', size);
    text.classList.add('badge-text');
    const box = text.getBBox();
    const badge = document.createElementNS(svgNs, 'rect');
    badge.setAttribute('class', 'badge');
    badge.setAttribute('x', box.x - 2);
    badge.setAttribute('y', box.y - 1);
    badge.setAttribute('width', box.width + 4);
    badge.setAttribute('height', box.height + 2);
    badge.setAttribute('rx', 2);
    text.before(badge);
  }
}

// ---- the selection ----

// Every selected widget (the host's selection: a click, and Shift+click for more) is
// outlined on its page; Group as radio buttons takes them.
function selectedWidgets() {
  return state?.selection?.all ?? [];
}

function markWidgets(i) {
  const keys = new Set(selectedWidgets().map((w) => `${w.page}:${w.index}`));
  for (const r of pages[i].overlay.querySelectorAll('rect[data-index]')) {
    r.classList.toggle('marked', keys.size > 1 && keys.has(`${i}:${r.dataset.index}`));
  }
  const count = selectedWidgets().length;
  $('#marked-count').textContent = count > 1 ? t('marked', count) : '';
}

async function groupSelected() {
  const widgets = selectedWidgets().map(({page, index}) => ({page, index}));
  await step({command: {name: 'GroupRadioButtons', widgets}});
}

// ---- pointer and keys ----

function pageAt(x, y) {
  return state.layout.pages.findIndex(
    (r) => x >= r.left && x < r.right && y >= r.top && y < r.bottom);
}

function modifiers(ev) {
  return (ev.shiftKey ? 4 : 0) | (ev.ctrlKey || ev.metaKey ? 8 : 0);
}

// Sends a pointer event at view pixel at (layout.js snaps it while a drag goes on).
function event(type, ev, code = 0, replace = false, at = layout.pointerAt(ev)) {
  const [x, y] = at;
  return post('/api/event', {type, code, x, y, modifiers: modifiers(ev)}, {replace});
}

const selectMode = () => state.tool === '' || state.tool === 'WidgetEdit';

view.addEventListener('pointerdown', (ev) => {
  if (!ready() || preview || (ev.button !== 0 && ev.button !== 2)) return;
  ev.preventDefault();
  view.focus({preventScroll: true});
  const box = view.getBoundingClientRect();
  const x = Math.floor(ev.clientX - box.left), y = Math.floor(ev.clientY - box.top);
  const page = pageAt(x, y);
  if (page >= 0) focusPage = page;
  view.setPointerCapture(ev.pointerId);
  say('');
  cancelled = false;
  // A right press in select mode opens the context menu; a tool takes it as before.
  if (ev.button === 2 && selectMode()) {
    view.releasePointerCapture(ev.pointerId);
    layout.contextMenu(ev);
    return;
  }
  kept = ev.button === 0 && state.tool !== 'FormTabOrder' && layout.press(ev, selectMode());
  if (kept) return;
  // Shift+click and Ctrl+click in select mode add a widget to the selection or take it out.
  marking = ev.button === 0 && (ev.shiftKey || ev.ctrlKey || ev.metaKey) && selectMode();
  pressed = ev.button === 0 && !marking;
  event(2, ev, ev.button === 2 ? 1 : 0, false, layout.pressAt(ev));
});

view.addEventListener('pointermove', (ev) => {
  if (kept) {
    layout.move(ev);
    return;
  }
  // With no tool active the host has no use for a move unless a press started a drag.
  if (!ready() || preview || marking || cancelled ||
      (state.tool === '' && ev.buttons === 0)) return;
  const at = layout.pointerAt(ev);
  if (String(at) === lastMove) return;
  lastMove = String(at);
  event(4, ev, 0, true, at);
});

view.addEventListener('pointerup', (ev) => {
  if (ev.button === 0) pressed = false;
  if (kept && ev.button === 0) {
    kept = false;
    layout.release(ev);
    return;
  }
  if (marking || cancelled) {
    marking = cancelled = false;
    return;
  }
  if (!ready() || preview || (ev.button !== 0 && ev.button !== 2)) return;
  if (ev.button === 2 && selectMode()) return; // the context menu took the press
  const at = layout.pointerAt(ev);
  if (ev.button === 0) layout.release(ev);
  event(3, ev, ev.button === 2 ? 1 : 0, false, at);
});

view.addEventListener('pointercancel', (ev) => {
  layout.cancel();
  if (kept) {
    kept = false;
    return;
  }
  marking = pressed = false;
  if (ready() && !preview && !cancelled) event(11, ev);
  cancelled = false;
});

// Escape during a drag puts the widget back where it was (a drawing tool draws nothing);
// the rest of the drag stays in the page.
function cancelDrag() {
  pressed = false;
  cancelled = true;
  post('/api/event', {type: 11, code: 0, x: 0, y: 0, modifiers: 0});
}

view.addEventListener('contextmenu', (ev) => ev.preventDefault());

const shortcuts = {
  z: () => step({undo: 1}),
  y: () => step({redo: 1}),
  c: () => step({edit: 'Copy'}),
  x: () => step({edit: 'Cut'}),
  v: () => step({paste: {page: focusPage}}),
  V: () => step({paste: {page: focusPage, join: true}}),
  d: () => step({edit: 'DuplicateCopy'}),
  '=': () => zoomTo(1),
  '+': () => zoomTo(1),
  '-': () => zoomTo(-1),
  '0': () => setZoom(1),
};

function key(type, ev) {
  if (!ready() || preview || ev.target.closest?.('input, select, textarea')) return;
  if (ev.key === 'Escape' && kept) {
    ev.preventDefault();
    if (type === 7) kept = !layout.cancel();
    return;
  }
  if (ev.key === 'Escape' && pressed) {
    ev.preventDefault();
    if (type === 7) cancelDrag();
    return;
  }
  // The context menu from the keyboard, in select mode.
  if ((ev.key === 'ContextMenu' || (ev.key === 'F10' && ev.shiftKey)) && selectMode()) {
    ev.preventDefault();
    if (type === 7) layout.contextMenuFromKeys();
    return;
  }
  if ((ev.ctrlKey || ev.metaKey) && !ev.altKey) {
    const key = ev.key.toLowerCase();
    const name = !ev.shiftKey ? key : key === 'z' ? 'y' : key === 'v' ? 'V' : key;
    if (!shortcuts[name]) return;
    ev.preventDefault();
    if (type === 7) shortcuts[name]();
    return;
  }
  const code = hostKeys[ev.key];
  if (code === undefined || (ev.target !== view && ev.target !== document.body)) return;
  ev.preventDefault();
  post('/api/event', {type, code, x: 0, y: 0, modifiers: modifiers(ev)}).then((a) => {
    // Delete the tool left alone deletes the selected widget.
    if (type === 7 && code === 46 && a.ok && !a.body.handled && a.body.state.selection) {
      step({edit: 'Delete'});
    }
  });
}

document.addEventListener('keydown', (ev) => key(7, ev));
document.addEventListener('keyup', (ev) => key(8, ev));

// ---- toolbar ----

for (const name of tools) {
  const b = document.createElement('button');
  b.type = 'button';
  b.dataset.tool = name;
  b.dataset.text = name;
  $('#tools').append(b);
}

// The zoom at which the widest page (fit "width") or every page whole (fit "page") fills
// the scroller, the view's margins kept.
function fitZoom(fit) {
  const {zoom, pages: rects} = state.layout;
  const margin = 2 * 16 + 2; // the view's margins, and a pixel each side to spare
  const scroller = $('#scroller');
  const width = Math.max(...rects.map((r) => (r.right - r.left) / zoom));
  const height = Math.max(...rects.map((r) => (r.bottom - r.top) / zoom));
  const byWidth = (scroller.clientWidth - margin) / width;
  const z = fit === 'width' ? byWidth : Math.min(byWidth, (scroller.clientHeight - margin) / height);
  return Math.min(64, Math.max(0.1, Math.floor(z * 100) / 100));
}

// Zooms the view: the pages in sight start drawing at the new zoom while the host takes it
// (the page's box follows when its answer comes).
function setZoom(zoom) {
  pages.forEach((p, i) => {
    if (p.element.hasAttribute('data-visible')) drawPage(i, zoom);
  });
  return step({view: {zoom}});
}

function zoomTo(direction) {
  const now = state.layout.zoom;
  const next = direction > 0 ? zooms.find((z) => z > now + 1e-6)
    : zooms.findLast((z) => z < now - 1e-6);
  if (next) setZoom(next);
}

// Orders every page's widgets in rows (or columns) that allow a few points of
// unevenness, then shows the order with the tab-order tool's numbers.
async function autoTabOrder(order) {
  const answer = await step({tabOrder: order});
  if (answer.ok && state.tool !== 'FormTabOrder') step({tool: 'FormTabOrder'});
}

async function save(body) {
  say('');
  notice('');
  const answer = await post('/api/save', body);
  if (answer.ok) {
    notice(t('saved', answer.body.saved));
  } else if (answer.status === 409 && answer.body.exists) {
    // A file of that name is replaced only when the person says so.
    if (window.confirm(answer.body.error)) save({...body, replace: true});
  } else if (answer.status === 409 && answer.body.signed) {
    // A signed document is saved only when the person agrees to break its signatures.
    if (window.confirm(answer.body.error)) save({...body, breakSignatures: true});
  }
}

$('#toolbar').addEventListener('click', (ev) => {
  const b = ev.target.closest('button');
  if (!b || !ready()) return;
  if (b.dataset.tool !== undefined) {
    // The page decides at a press whether it keeps the drag (layout.js) by the tool: the
    // one chosen counts from now, as the host takes the steps in order.
    state.tool = b.dataset.tool;
    step({tool: b.dataset.tool});
  }
  else if (b.dataset.edit) step({edit: b.dataset.edit});
  else {
    ({
      'tab-rows': () => autoTabOrder('rows'),
      'tab-columns': () => autoTabOrder('columns'),
      'group-radio': groupSelected,
      'undo': () => step({undo: 1}),
      'redo': () => step({redo: 1}),
      'paste': () => step({paste: {page: focusPage}}),
      'paste-linked': () => step({paste: {page: focusPage, join: true}}),
      'zoom-in': () => zoomTo(1),
      'zoom-out': () => zoomTo(-1),
      'fit-width': () => setZoom(fitZoom('width')),
      'fit-page': () => setZoom(fitZoom('page')),
      'actual-size': () => setZoom(1),
      'pages-toggle': () => toggleThumbs(b, state),
      'rotate': () => step({view: {rotation: (state.layout.rotation + 90) % 360}}),
      'preview': togglePreview,
      'save': () => save({}),
      'save-as': () => save({as: $('#save-as-name').value.trim()}),
    })[b.id]?.();
  }
});

$('#save-as-name').addEventListener('keydown', (ev) => {
  if (ev.key === 'Enter') save({as: ev.target.value.trim()});
});

$('#lang').addEventListener('change', (ev) => post('/api/language', {lang: ev.target.value}));

// Preview shows the form as a reader does: nothing authors meanwhile (tools, panel,
// overlays, keys, pointer); leaving it gives everything back as it was.
function togglePreview() {
  preview = !preview;
  document.body.classList.toggle('preview', preview);
  $('#preview').setAttribute('aria-pressed', String(preview));
  $('#panel').inert = preview;
  updateToolbar();
  const box = $('#preview-box');
  box.hidden = !preview;
  if (preview) {
    const scroller = $('#scroller');
    Object.assign(box.style, {left: `${scroller.offsetLeft}px`, top: `${scroller.offsetTop}px`,
      width: `${scroller.clientWidth}px`, height: `${scroller.offsetHeight}px`});
    tracked(() => openPreview(box)).catch((e) => say(t('pageFailed', 1, e.message ?? e)));
  } else {
    tracked(closePreview);
  }
}

// Asks before the tab closes on changes not saved.
window.addEventListener('beforeunload', (ev) => {
  if (state && !state.locked && state.document.modified) ev.preventDefault();
});

function updateToolbar() {
  const s = state;
  for (const b of document.querySelectorAll('[data-tool]')) {
    const active = b.dataset.tool === s.tool || (b.dataset.tool === '' && s.tool === 'WidgetEdit');
    b.classList.toggle('active', active);
    b.setAttribute('aria-pressed', String(active));
    b.disabled = preview || (b.dataset.tool !== '' && !s.tools.includes(b.dataset.tool));
  }
  const undo = $('#undo'), redo = $('#redo');
  undo.disabled = preview || !s.undo.length;
  redo.disabled = preview || !s.redo.length;
  undo.title = s.undo.length ? t('undoWhat', commandLabel(s.undo.at(-1))) : '';
  redo.title = s.redo.length ? t('redoWhat', commandLabel(s.redo.at(-1))) : '';
  const editing = s.tool === 'WidgetEdit' && s.selection !== null;
  for (const b of document.querySelectorAll('[data-edit]')) b.disabled = preview || !editing;
  for (const id of ['tab-rows', 'tab-columns', 'paste', 'paste-linked']) $(`#${id}`).disabled = preview;
  $('#zoom').textContent = `${Math.round(s.layout.zoom * 100)}%`;
  $('#save-folder').textContent = t('saveAsIn', s.document.folder);
  $('#save-folder').title = s.document.folder;
  $('#doc-name').textContent = s.document.name;
  $('#doc-modified').textContent = s.document.modified ? ' *' : '';
  $('#doc-encrypted').hidden = !s.document.encrypted;
  document.title = `${s.document.name}${s.document.modified ? ' *' : ''} — qfforms edit`;
  $('#group-radio').disabled = preview || selectedWidgets().length === 0;
  layout.updateLayoutTools(preview);
}

// ---- start ----

layout.setupLayout({
  view, pages,
  state: () => state,
  step,
  edit: (name) => step({edit: name}),
  paste: () => step({paste: {page: focusPage}}),
  group: groupSelected,
  focusPanel: () => $('#panel').querySelector('input, select, textarea, button')?.focus(),
});
translate();
getText('/api/state').then(
  (text) => show(JSON.parse(text).state),
  (e) => say(e instanceof TypeError ? t('serverGone') : String(e.message ?? e)));
