// The pdf.js reader of the reader matrix (reader_matrix.py): pages drawn by pdf.js inside
// Debian's chromium, with every annotation drawn from its appearance streams, as a person
// sees the page in a browser that shows the document without a form layer.
//
//   node reader_matrix_pdfjs.mjs --web WEB_DIR --jobs JOBS.json --out RESULTS.json
//
// JOBS.json is a list of {pdf, password, page, scale, boxes: {name: [x0, y0, x1, y1]},
// keep}: page from 0, scale in pixels per point, boxes in pixels of the drawn page (top
// left origin, x1 and y1 excluded). RESULTS.json gets one entry per job, in order:
// {error} when the document or the page could not be read, else {width, height, crops:
// {name: {width, height, rgb: base64 of the box's RGB bytes, row by row, cut to the
// page}}, text: [the text items of the page], annotations: [the widget data pdf.js gives
// its form layer]}. keep, when set, is a path where the whole page is written as a binary
// PPM.
//
// A job with fill: {field name: value} and save: PATH draws nothing: it sets the values as
// a person filling in the form does (a text or an option; true turns a check box or the
// field's first radio button on), saves the document as pdf.js saves it to PATH and gets
// {saved: true}.

import fs from 'node:fs';
import http from 'node:http';
import {createRequire} from 'node:module';
import path from 'node:path';
import {parseArgs} from 'node:util';

const {values: args} = parseArgs({
  options: {web: {type: 'string'}, jobs: {type: 'string'}, out: {type: 'string'}},
});
for (const name of ['web', 'jobs', 'out']) {
  if (!args[name]) throw new Error(`--${name} is needed`);
}
const web = path.resolve(args.web);
const {chromium} = createRequire(path.join(web, 'package.json'))('playwright-core');
const pdfjsRoot = path.join(web, 'node_modules', 'pdfjs-dist');
const jobs = JSON.parse(fs.readFileSync(args.jobs, 'utf8'));

// pdf.js and the documents from a loopback server: module scripts and the worker need
// http, and the documents are fetched as a browser fetches them.
const types = {'.mjs': 'text/javascript', '.wasm': 'application/wasm', '.pdf': 'application/pdf'};
const server = http.createServer((req, res) => {
  const url = new URL(req.url, 'http://127.0.0.1');
  let file = null;
  if (url.pathname === '/') {
    res.writeHead(200, {'Content-Type': 'text/html'});
    res.end('<!doctype html><meta charset="utf-8"><title>reader matrix</title>');
    return;
  }
  const job = /^\/job\/(\d+)\.pdf$/.exec(url.pathname);
  if (job && jobs[Number(job[1])]) {
    file = jobs[Number(job[1])].pdf;
  } else if (url.pathname.startsWith('/pdfjs/')) {
    const candidate = path.join(pdfjsRoot, decodeURIComponent(url.pathname.slice(7)));
    if (candidate.startsWith(pdfjsRoot + path.sep)) file = candidate;
  }
  fs.readFile(file ?? '', (err, data) => {
    if (err) {
      res.writeHead(404);
      res.end();
      return;
    }
    res.writeHead(200, {'Content-Type': types[path.extname(file)] ?? 'application/octet-stream'});
    res.end(data);
  });
});
await new Promise((resolve) => server.listen(0, '127.0.0.1', resolve));
const base = `http://127.0.0.1:${server.address().port}`;

// Runs in the page: one job, answered as plain JSON.
async function renderJob({base, index, job}) {
  const base64 = (bytes) => {
    let s = '';
    for (let i = 0; i < bytes.length; i += 0x8000) {
      s += String.fromCharCode.apply(null, bytes.subarray(i, i + 0x8000));
    }
    return btoa(s);
  };
  const fillJob = async (doc, values) => {
    const fields = (await doc.getFieldObjects()) ?? {};
    for (const [name, value] of Object.entries(values)) {
      const widget = (fields[name] ?? []).find((f) => f.id && !f.kidIds);
      if (!widget) return {error: `pdf.js finds no field ${name}`};
      doc.annotationStorage.setValue(widget.id, {value});
    }
    return {saved: base64(await doc.saveDocument())};
  };
  const pdfjs = await import(`${base}/pdfjs/build/pdf.mjs`);
  // One worker for every document: starting one costs more than drawing a page.
  if (!window.matrixWorker) {
    pdfjs.GlobalWorkerOptions.workerSrc = `${base}/pdfjs/build/pdf.worker.mjs`;
    window.matrixWorker = new pdfjs.PDFWorker();
  }
  const task = pdfjs.getDocument({
    url: `${base}/job/${index}.pdf`,
    worker: window.matrixWorker,
    password: job.password ?? undefined,
    cMapUrl: `${base}/pdfjs/cmaps/`,
    standardFontDataUrl: `${base}/pdfjs/standard_fonts/`,
    wasmUrl: `${base}/pdfjs/wasm/`,
  });
  let doc;
  try {
    doc = await task.promise;
  } catch (e) {
    return {error: `${e.name}: ${e.message}`};
  }
  try {
    if (job.fill) return await fillJob(doc, job.fill);
    if (job.page >= doc.numPages) return {error: `no page ${job.page} (${doc.numPages} pages)`};
    const page = await doc.getPage(job.page + 1);
    const viewport = page.getViewport({scale: job.scale});
    const canvas = document.createElement('canvas');
    canvas.width = Math.round(viewport.width);
    canvas.height = Math.round(viewport.height);
    await page.render({canvas, viewport, annotationMode: pdfjs.AnnotationMode.ENABLE}).promise;
    const {width, height} = canvas;
    const rgba = canvas.getContext('2d').getImageData(0, 0, width, height).data;
    // The RGB bytes of a box, row by row, cut to the page.
    const encode = (x0, y0, x1, y1) => {
      x0 = Math.min(Math.max(0, x0), width), y0 = Math.min(Math.max(0, y0), height);
      x1 = Math.min(Math.max(x0, x1), width), y1 = Math.min(Math.max(y0, y1), height);
      const rgb = new Uint8Array((x1 - x0) * (y1 - y0) * 3);
      let o = 0;
      for (let y = y0; y < y1; ++y) {
        for (let x = x0, i = (y * width + x0) * 4; x < x1; ++x, i += 4) {
          rgb[o++] = rgba[i], rgb[o++] = rgba[i + 1], rgb[o++] = rgba[i + 2];
        }
      }
      return {width: x1 - x0, height: y1 - y0, rgb: base64(rgb)};
    };
    const crops = {};
    for (const [name, box] of Object.entries(job.boxes ?? {})) crops[name] = encode(...box);
    const text = (await page.getTextContent()).items.map((item) => item.str);
    const keys = ['fieldName', 'fieldType', 'fieldValue', 'defaultFieldValue', 'checkBox',
      'radioButton', 'pushButton', 'combo', 'multiSelect', 'exportValue', 'buttonValue',
      'readOnly', 'hidden'];
    const annotations = (await page.getAnnotations({intent: 'display'}))
      .filter((a) => a.subtype === 'Widget')
      .map((a) => {
        const out = {rect: Array.from(a.rect)};
        for (const k of keys) if (a[k] !== undefined) out[k] = a[k];
        if (a.options) {
          out.options = a.options.map((o) => ({exportValue: o.exportValue,
            displayValue: o.displayValue}));
        }
        return out;
      });
    return {width, height, crops, text, annotations,
      page: job.keep ? encode(0, 0, width, height).rgb : undefined};
  } finally {
    await doc.destroy();
  }
}

const browser = await chromium.launch({
  executablePath: '/usr/bin/chromium', headless: true, args: ['--no-sandbox'],
});
const results = [];
try {
  const page = await browser.newPage();
  await page.goto(`${base}/`);
  for (const [index, job] of jobs.entries()) {
    let result;
    try {
      result = await page.evaluate(renderJob, {base, index, job});
    } catch (e) {
      result = {error: String(e.message ?? e)};
    }
    if (result.saved !== undefined) {
      fs.writeFileSync(job.save, Buffer.from(result.saved, 'base64'));
      result.saved = true;
    }
    if (result.page !== undefined) {
      const header = Buffer.from(`P6\n${result.width} ${result.height}\n255\n`);
      fs.writeFileSync(job.keep, Buffer.concat([header, Buffer.from(result.page, 'base64')]));
      delete result.page;
    }
    results.push(result);
  }
} finally {
  await browser.close();
  server.close();
}
fs.writeFileSync(args.out, JSON.stringify(results));
