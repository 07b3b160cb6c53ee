// The property panel: the active tool's sheet and the selected widget's sheet. A text row
// is set when the person presses Enter or leaves it; a list of pairs is edited in a small
// table and set with Apply.

import {translate} from './texts.js';

const areas = [
  {id: 'tool-sheet', key: 'sheet', area: null},
  {id: 'widget-sheet', key: 'widgetSheet', area: 'AnnotArea'},
];

// Shows the sheets of state; commit(step) sends a step and resolves after its answer.
export function renderPanel(state, commit) {
  let any = false;
  // Rows belong to one tool and one widget: another one rebuilds them, so that a row
  // being typed into is never set on the wrong widget.
  const owner = `${state.tool}|${state.selection?.page}|${state.selection?.index}`;
  for (const {id, key, area} of areas) {
    const section = document.getElementById(id);
    const rows = (state[key] ?? []).filter((r) => !r.hidden);
    const shape = JSON.stringify([owner, rows.map((r) => [r.name, r.kind, r.readOnly])]);
    const list = section.querySelector('.rows');
    if (section.dataset.shape !== shape) {
      section.dataset.shape = shape;
      list.replaceChildren(...rows.map((r) => buildRow(r, area, commit)));
    }
    for (const r of rows) {
      const e = list.querySelector(`[data-property="${CSS.escape(r.name)}"]`);
      if (r.kind === 'pairs') fillPairs(e, r.value);
      else fillText(e, r.value);
    }
    section.hidden = rows.length === 0;
    any ||= rows.length > 0;
  }
  document.getElementById('panel-empty').hidden = any;
}

function setStep(row, area, value) {
  const set = {property: row.name, value};
  if (area) set.area = area;
  return {set};
}

function buildRow(row, area, commit) {
  const e = document.createElement('div');
  e.className = `row ${row.kind}`;
  e.dataset.property = row.name;
  if (row.kind === 'pairs') {
    e.innerHTML = `<span class="name"></span>
      <table><thead><tr><th data-text="display"></th><th data-text="export"></th><th></th></tr>
      </thead><tbody></tbody></table>
      <button type="button" class="add-row" data-text="addRow"></button>
      <button type="button" class="apply" data-text="apply"></button>`;
    e.querySelector('.name').textContent = row.name;
    const body = e.querySelector('tbody');
    e.querySelector('.add-row').onclick = () => body.append(pairRow('', '', row.readOnly));
    e.querySelector('.apply').onclick = () => {
      const value = [...body.rows].map((tr) => [...tr.querySelectorAll('input')]
        .map((i) => i.value));
      commit(setStep(row, area, value.filter(([d, x]) => d !== '' || x !== '')));
    };
    for (const b of e.querySelectorAll('button')) b.disabled = row.readOnly;
    translate(e);
    return e;
  }
  e.innerHTML = '<label><span class="name"></span><input type="text" autocomplete="off"></label>';
  e.querySelector('.name').textContent = row.name;
  const input = e.querySelector('input');
  input.name = row.name;
  input.disabled = row.readOnly;
  const send = async () => {
    if (input.value === input.dataset.value) return;
    await commit(setStep(row, area, input.value));
    input.value = input.dataset.value; // what the widget took, or the old value if refused
  };
  // change comes with Enter as well as on leaving the row.
  input.addEventListener('change', send);
  input.addEventListener('keydown', (ev) => {
    if (ev.key === 'Escape') input.value = input.dataset.value;
  });
  return e;
}

function fillText(e, value) {
  const input = e.querySelector('input');
  input.dataset.value = value;
  if (document.activeElement !== input) input.value = value;
}

function pairRow(display, exported, readOnly) {
  const tr = document.createElement('tr');
  tr.innerHTML = `<td><input type="text" class="display"></td>
    <td><input type="text" class="export"></td>
    <td><button type="button" class="remove-row" data-text="removeRow"></button></td>`;
  const [d, x] = tr.querySelectorAll('input');
  d.value = display;
  x.value = exported;
  d.dataset.title = 'display';
  x.dataset.title = 'export';
  for (const c of tr.querySelectorAll('input, button')) c.disabled = readOnly;
  tr.querySelector('.remove-row').onclick = () => tr.remove();
  translate(tr);
  return tr;
}

// Refills the table when the widget's list changed; edits not yet applied stay otherwise.
function fillPairs(e, value) {
  const json = JSON.stringify(value);
  if (e.dataset.value === json) return;
  e.dataset.value = json;
  const readOnly = e.querySelector('.apply').disabled;
  e.querySelector('tbody').replaceChildren(...value.map(([d, x]) => pairRow(d, x, readOnly)));
}
