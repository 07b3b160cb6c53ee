// Preview: the form as a person fills it in a reader, in pdf.js's viewer with its form
// layer and its scripts (formats, validation, calculations, actions), over the pages.
// What is typed stays in the preview: the document is not changed, and leaving the
// preview shows the editing view as it was, without loading the page again.

import * as pdfjs from '/vendor/pdfjs/pdf.mjs';
import {getBytes} from './api.js';

let viewerModule = null;
let shown = null; // {container, viewer, scripting, pdf}
let opening = null;

function styles() {
  if (document.getElementById('pdf-viewer-css')) return;
  const link = document.createElement('link');
  link.id = 'pdf-viewer-css';
  link.rel = 'stylesheet';
  link.href = '/vendor/pdfjs/web/pdf_viewer.css';
  document.head.append(link);
}

// Shows the document as it is now in container (an absolutely placed, scrolling box).
export function openPreview(container) {
  opening = (async () => {
    styles();
    viewerModule ??= import('/vendor/pdfjs/web/pdf_viewer.mjs');
    const {EventBus, PDFLinkService, PDFScriptingManager, PDFViewer} = await viewerModule;
    const inner = document.createElement('div');
    inner.className = 'pdfViewer';
    container.replaceChildren(inner);
    const eventBus = new EventBus();
    const linkService = new PDFLinkService({eventBus});
    const scripting = new PDFScriptingManager({eventBus,
      sandboxBundleSrc: '/vendor/pdfjs/pdf.sandbox.mjs', wasmUrl: '/vendor/pdfjs/wasm/'});
    const viewer = new PDFViewer({container, viewer: inner, eventBus, linkService,
      scriptingManager: scripting, annotationMode: pdfjs.AnnotationMode.ENABLE_FORMS});
    linkService.setViewer(viewer);
    scripting.setViewer(viewer);
    const pdf = await pdfjs.getDocument({
      data: await getBytes('/api/document.pdf'),
      wasmUrl: '/vendor/pdfjs/wasm/',
      standardFontDataUrl: '/vendor/pdfjs/standard_fonts/',
      cMapUrl: '/vendor/pdfjs/cmaps/',
    }).promise;
    viewer.setDocument(pdf);
    linkService.setDocument(pdf);
    shown = {container, viewer, scripting, pdf};
    eventBus.on('sandboxcreated', () => container.setAttribute('data-scripts', 'on'));
    await scripting.setDocument(pdf);
  })();
  return opening;
}

export async function closePreview() {
  try {
    await opening;
  } catch {
    // a preview that failed to open has nothing more to close
  }
  if (!shown) return;
  const {container, viewer, scripting, pdf} = shown;
  shown = null;
  await scripting.setDocument(null);
  viewer.setDocument(null);
  container.replaceChildren();
  container.removeAttribute('data-scripts');
  await pdf.destroy();
}
