// The property panel: the active tool's sheet, the selected widget's own rows, and the
// field properties of the selected widgets in groups. Every control sends one step and
// shows what the server answers: a value the host refused comes back as it was, with the
// reason in the message bar. Texts are set on Enter or when they lose the focus; a list of
// pairs is edited in a small table and set with Apply.

import {t, translate} from './texts.js';

const sheets = [
  {id: 'tool-sheet', key: 'sheet', area: null},
  {id: 'widget-sheet', key: 'widgetSheet', area: 'AnnotArea'},
];
// The widget sheet's rows that the field properties show better: left out beside them.
const coveredRows = new Set(['Hidden', 'Printed', 'BackgroundColor', 'BorderColor',
  'BorderWidth', 'BorderStyle', 'FontName', 'FontSize', 'FontColor']);
const groups = ['general', 'value', 'text', 'choice', 'button', 'appearance'];
// Value rows offer the field's own values, shown as they are but for these two.
const valueRows = new Set(['value', 'defaultValue']);

// Shows the sheets and properties of state; commit(step) sends a step and resolves after
// its answer.
export function renderPanel(state, commit) {
  // Rows belong to one tool and one selection: another one rebuilds them, so that a row
  // being typed into is never set on the wrong widget.
  const selection = state.selection ? `${state.selection.page}:${state.selection.index}` : '';
  const owner = `${state.tool}|${selection}|${state.properties?.count ?? 0}`;
  let any = renderProperties(state.properties, owner, commit);
  for (const {id, key, area} of sheets) {
    const section = document.getElementById(id);
    const rows = (state[key] ?? []).filter((r) => !r.hidden &&
      !(area && state.properties && coveredRows.has(r.name)));
    const shape = JSON.stringify([owner, rows.map((r) => [r.name, r.kind, r.readOnly])]);
    const list = section.querySelector('.rows');
    if (section.dataset.shape !== shape) {
      section.dataset.shape = shape;
      list.replaceChildren(...rows.map((r) => sheetRow(r, area, commit)));
    }
    for (const r of rows) {
      const e = list.querySelector(`[data-property="${CSS.escape(r.name)}"]`);
      if (r.kind === 'pairs') fillPairs(e, r.value);
      else fillText(e.querySelector('input'), r.value);
    }
    section.hidden = rows.length === 0;
    any ||= rows.length > 0;
  }
  document.getElementById('panel-empty').hidden = any;
}

// ---- the tool's and the widget's sheets ----

function setStep(row, area, value) {
  const set = {property: row.name, value};
  if (area) set.area = area;
  return {set};
}

function sheetRow(row, area, commit) {
  const e = document.createElement('div');
  e.className = `row ${row.kind}`;
  e.dataset.property = row.name;
  if (row.kind === 'pairs') {
    e.innerHTML = `<span class="name"></span>
      <table><thead><tr><th data-text="display"></th><th data-text="export"></th><th></th></tr>
      </thead><tbody></tbody></table>
      <button type="button" class="add-row" data-text="addRow"></button>
      <button type="button" class="apply" data-text="apply"></button>`;
    e.querySelector('.name').dataset.text = `row.${row.name}`;
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
  e.querySelector('.name').dataset.text = `row.${row.name}`;
  const input = e.querySelector('input');
  input.name = row.name;
  input.disabled = row.readOnly;
  textCommit(input, (value) => commit(setStep(row, area, value)));
  translate(e);
  return e;
}

// A text input sends its value on Enter or when it loses the focus (change), unless it is
// what the host holds; Escape puts that back.
function textCommit(input, send) {
  input.addEventListener('change', async () => {
    if (input.value === input.dataset.value) return;
    await send(input.value);
    input.value = input.dataset.value; // what the widget took, or the old value if refused
  });
  input.addEventListener('keydown', (ev) => {
    if (ev.key === 'Escape') input.value = input.dataset.value;
  });
}

function fillText(input, value) {
  input.dataset.value = value ?? '';
  input.placeholder = value === null ? t('mixed') : '';
  if (document.activeElement !== input) input.value = value ?? '';
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

// ---- the field properties ----

// Builds the groups when the selection or the rows changed, then fills in every value.
function renderProperties(properties, owner, commit) {
  const section = document.getElementById('field-properties');
  const rows = properties?.rows ?? [];
  const shape = JSON.stringify([owner, properties?.kind,
    rows.map((r) => [r.id, r.type, r.readOnly, r.choices])]);
  if (section.dataset.shape !== shape) {
    section.dataset.shape = shape;
    const built = [];
    for (const group of groups) {
      const own = rows.filter((r) => r.group === group);
      if (own.length === 0) continue;
      const g = document.createElement('section');
      g.className = 'group';
      g.dataset.group = group;
      const heading = document.createElement('h4');
      heading.dataset.text = `group.${group}`;
      g.append(heading, ...own.map((r) => propertyRow(r, commit)));
      built.push(g);
    }
    section.querySelector('.groups').replaceChildren(...built);
    translate(section);
  }
  const count = section.querySelector('.count');
  count.textContent = properties && properties.count > 1 ? t('selectedCount', properties.count) : '';
  for (const r of rows) fillProperty(section.querySelector(`[data-id="${CSS.escape(r.id)}"]`), r);
  section.hidden = rows.length === 0;
  return rows.length > 0;
}

function propertyStep(id, value) {
  return {property: {id, value}};
}

// The words of a choice: the field's own values as they are, other choices by their id.
function choiceLabel(row, choice) {
  if (valueRows.has(row.id)) {
    if (choice === '') return t('noValue');
    if (choice === 'Off') return t('off');
    return choice;
  }
  return t(`choice.${row.id}.${choice}`);
}

function propertyRow(row, commit) {
  const e = document.createElement('div');
  e.className = `row property ${row.type}`;
  e.dataset.id = row.id;
  // A colour holds a label of its own ("none"): its row is no label.
  const label = document.createElement(row.type === 'colour' ? 'div' : 'label');
  label.className = 'line';
  const name = document.createElement('span');
  name.className = 'name';
  name.dataset.text = `prop.${row.id}`;
  const send = (value) => commit(propertyStep(row.id, value));
  let control;
  if (row.type === 'bool') {
    control = document.createElement('input');
    control.type = 'checkbox';
    control.addEventListener('change', () => send(control.checked));
    label.append(control, name);
    label.className = 'line check';
  } else if (row.type === 'choice') {
    // Options by position: a field's values may be any text, the empty one too.
    control = document.createElement('select');
    const mixed = new Option('—');
    mixed.className = 'mixed';
    mixed.disabled = true;
    control.append(mixed, ...row.choices.map((c) => new Option(choiceLabel(row, c))));
    control.addEventListener('change', () => send(row.choices[control.selectedIndex - 1]));
    label.append(name, control);
  } else if (row.type === 'colour') {
    control = document.createElement('span');
    control.className = 'colour';
    control.innerHTML = `<input type="color"><label class="none"><input type="checkbox">
      <span data-text="none"></span></label>`;
    const [colour, none] = control.querySelectorAll('input');
    colour.dataset.title = `prop.${row.id}`;
    colour.addEventListener('change', () => send(colour.value));
    none.addEventListener('change', () => send(none.checked ? 'none' : colour.value));
    label.append(name, control);
  } else if (row.type === 'number') {
    control = document.createElement('span');
    control.className = 'number';
    const input = document.createElement('input');
    input.type = 'number';
    input.min = row.min;
    input.max = row.max;
    input.step = row.id === 'rotation' ? 90 : row.id === 'maxLength' ? 1 : 'any';
    const unit = document.createElement('span');
    unit.className = 'unit';
    unit.textContent = row.unit;
    textCommit(input, (value) => send(value === '' ? null : Number(value)));
    control.append(input, unit);
    label.append(name, control);
  } else {
    control = document.createElement('input');
    control.type = 'text';
    control.autocomplete = 'off';
    textCommit(control, send);
    label.append(name, control);
  }
  for (const c of label.querySelectorAll('input, select')) c.disabled = row.readOnly;
  e.append(label);
  return e;
}

// Shows row's value in its control; a value the widgets do not share (null) shows as
// neither (an indeterminate box, an empty field, the dash of a list).
function fillProperty(e, row) {
  const v = row.value;
  if (row.type === 'bool') {
    const box = e.querySelector('input');
    box.indeterminate = v === null;
    box.checked = v === true;
  } else if (row.type === 'choice') {
    const select = e.querySelector('select');
    select.selectedIndex = row.choices.indexOf(v) + 1; // 0: the dash of no common value
    select.querySelector('.mixed').hidden = select.selectedIndex !== 0;
  } else if (row.type === 'colour') {
    const [colour, none] = e.querySelectorAll('input');
    none.indeterminate = v === null;
    none.checked = v === 'none';
    e.classList.toggle('mixed', v === null);
    if (v && v !== 'none' && document.activeElement !== colour) colour.value = v;
  } else {
    fillText(e.querySelector('input'), v === null ? null : String(v));
  }
}
