// The document as pdf.js has loaded it, once for the page's life: the editing view draws
// the pages without their annotations, so no edit changes what they show (the overlays
// show the widgets), and zoom, turns and thumbnails only draw again.

import * as pdfjs from '/vendor/pdfjs/pdf.mjs';
import {getBytes} from './api.js';

let loaded = null; // the loading's promise

export function pdfDocument() {
  if (!loaded) {
    const mine = getBytes('/api/document.pdf').then((data) => pdfjs.getDocument({
      data,
      wasmUrl: '/vendor/pdfjs/wasm/',
      standardFontDataUrl: '/vendor/pdfjs/standard_fonts/',
      cMapUrl: '/vendor/pdfjs/cmaps/',
    }).promise);
    loaded = mine;
    mine.catch(() => {
      if (loaded === mine) loaded = null; // the next drawing tries again
    });
  }
  return loaded;
}
