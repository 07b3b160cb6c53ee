// Talking to `qfforms edit`: every request carries the session token in the X-QF-Token
// header, which the server wants of every change (a page of another site cannot add it;
// the cookie only opens the page's files), and the posts go one at a time in the order
// they were made, so that a press, the moves of its drag and the release reach the host in
// that order.

const token = new URLSearchParams(location.search).get('token') ?? '';

let active = 0; // requests and renders under way; the page is settled at 0
const listeners = new Set();

export function onBusyChange(f) {
  listeners.add(f);
}

// Counts work under way around f; the body carries data-busy meanwhile.
export async function tracked(f) {
  if (active++ === 0) listeners.forEach((l) => l(true));
  try {
    return await f();
  } finally {
    if (--active === 0) listeners.forEach((l) => l(false));
  }
}

async function request(method, path, body) {
  const init = {method, headers: {'X-QF-Token': token}};
  if (body !== undefined) {
    init.headers['Content-Type'] = 'application/json';
    init.body = JSON.stringify(body);
  }
  return fetch(path, init);
}

// With quiet, the request does not count as work under way (see tracked): for what only
// refines what the page already shows.
export function getText(path, {quiet = false} = {}) {
  const get = async () => {
    const r = await request('GET', path);
    if (!r.ok) throw new Error(`${path}: ${r.status}`);
    return r.text();
  };
  return quiet ? get() : tracked(get);
}

export function getBytes(path) {
  return tracked(async () => {
    const r = await request('GET', path);
    if (!r.ok) throw new Error(`${path}: ${r.status}`);
    return new Uint8Array(await r.arrayBuffer());
  });
}

// The answer of a post: {status, ok, body} where body is the JSON answer (or {error} for
// one that is not JSON, such as a refused token).
async function send(path, body) {
  let r;
  try {
    r = await request('POST', path, body);
  } catch (e) {
    return {status: 0, ok: false, body: {error: String(e.message ?? e)}};
  }
  const text = await r.text();
  let answer;
  try {
    answer = JSON.parse(text);
  } catch {
    answer = {error: text.trim() || `${r.status} ${r.statusText}`};
  }
  return {status: r.status, ok: r.ok, body: answer};
}

const queue = [];
let pumping = false;
let onAnswer = () => {};

// f(answer, path) sees every answer as it arrives, before the caller's promise settles.
export function setAnswerHandler(f) {
  onAnswer = f;
}

// Posts body to path after the posts before it. With replace, a post still waiting behind
// another of the same kind takes this body instead, so that pointer moves made while the
// host is busy collapse to the latest.
export function post(path, body, {replace = false} = {}) {
  return new Promise((resolve) => {
    const last = queue[queue.length - 1];
    if (replace && last && last.replace && last.path === path) {
      last.body = body;
      last.waiters.push(resolve);
      return;
    }
    queue.push({path, body, replace, waiters: [resolve]});
    pump();
  });
}

async function pump() {
  if (pumping) return;
  pumping = true;
  await tracked(async () => {
    while (queue.length) {
      const job = queue.shift();
      const answer = await send(job.path, job.body);
      onAnswer(answer, job.path);
      job.waiters.forEach((w) => w(answer));
    }
  });
  pumping = false;
  if (queue.length) pump(); // posted while the last answer was handed out
}
