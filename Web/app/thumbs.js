// Page thumbnails: a strip beside the field list, shown with the Pages button. Each page
// is drawn small when it comes into the strip's sight; a click brings the page into view.

import * as pdfjs from '/vendor/pdfjs/pdf.mjs';
import {pdfDocument} from './pdfdoc.js';
import {addTexts, t} from './texts.js';

addTexts({en: {pages: 'Pages', pageN: 'p. {0}'}, ja: {pages: 'ページ', pageN: '{0} ページ'}});

const kWidth = 96; // pixels
let shown = false;
let count = -1;
let rotation = 0;

const observer = new IntersectionObserver((entries) => {
  for (const {target, isIntersecting} of entries) {
    if (isIntersecting && !target.dataset.drawn) draw(target);
  }
}, {rootMargin: '200px'});

function strip() {
  let aside = document.getElementById('thumbs');
  if (!aside) {
    aside = document.createElement('aside');
    aside.id = 'thumbs';
    aside.hidden = true;
    document.querySelector('main').prepend(aside);
  }
  return aside;
}

async function draw(box) {
  box.dataset.drawn = 'yes';
  const i = Number(box.dataset.page);
  try {
    const page = await (await pdfDocument()).getPage(i + 1);
    const base = page.getViewport({scale: 1, rotation});
    const viewport = page.getViewport({scale: kWidth * devicePixelRatio / base.width, rotation});
    const canvas = document.createElement('canvas');
    canvas.width = Math.round(viewport.width);
    canvas.height = Math.round(viewport.height);
    await page.render({canvas, viewport, annotationMode: pdfjs.AnnotationMode.DISABLE}).promise;
    box.querySelector('canvas').replaceWith(canvas);
  } catch {
    delete box.dataset.drawn; // tried again when it comes into sight again
  }
}

function build(state) {
  const aside = strip();
  count = state.layout.pages.length;
  rotation = state.layout.rotation;
  observer.disconnect();
  aside.replaceChildren(...state.layout.pages.map((r, i) => {
    const box = document.createElement('button');
    box.type = 'button';
    box.className = 'thumb';
    box.dataset.page = i;
    const canvas = document.createElement('canvas');
    canvas.width = kWidth;
    canvas.height = Math.round(kWidth * (r.bottom - r.top) / (r.right - r.left));
    const label = document.createElement('span');
    label.textContent = t('pageN', i + 1);
    box.append(canvas, label);
    box.onclick = () => document.querySelector(`.page[data-page="${i}"]`)
      ?.scrollIntoView({block: 'start', inline: 'nearest'});
    observer.observe(box);
    return box;
  }));
}

// Shows or hides the strip (button says which); state is the editor's latest.
export function toggleThumbs(button, state) {
  shown = !shown;
  strip().hidden = !shown;
  button.setAttribute('aria-pressed', String(shown));
  count = -1;
  renderThumbs(state);
}

// Follows the pages of state while the strip is shown.
export function renderThumbs(state) {
  if (!shown || state.locked) return;
  if (state.layout.pages.length !== count || state.layout.rotation !== rotation) build(state);
}
