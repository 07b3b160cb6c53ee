// The behaviour panel: what a field does when it is filled (format, validation,
// calculation), the form's calculation order, and the actions of each trigger. Actions
// travel as the widget clipboard's action records; formats, ranges and simple
// calculations are written as the AFNumber_Format / AFDate_FormatEx / AFRange_Validate /
// AFSimple_Calculate scripts that form-filling readers run. Every Apply is one step, so
// one undo.

import {addTexts, t, translate} from './texts.js';

const JAVASCRIPT = 275, URI = 550, SUBMIT = 498, RESET = 445, HIDE = 246, GOTO = 235,
  NAMED = 337, LAUNCH = 289, FIT = 147;

addTexts({
  en: {
    behaviour: 'Behaviour',
    format: 'Format',
    validate: 'Validate',
    calculate: 'Calculate',
    calculationOrder: 'Calculation order',
    actions: 'Actions',
    differ: 'The selected widgets differ here; Apply sets all of them.',
    fmtNone: 'None', fmtNumber: 'Number', fmtPercent: 'Percentage', fmtDate: 'Date',
    fmtTime: 'Time', fmtSpecial: 'Special', fmtCustom: 'Custom script',
    decimals: 'Decimal places', separator: 'Separator', negative: 'Negative numbers',
    currency: 'Currency symbol', symbolBefore: 'Symbol before the number',
    pattern: 'Pattern', special: 'Kind',
    zip: 'ZIP code', zip4: 'ZIP + 4', phone: 'Phone number', ssn: 'Social security number',
    negMinus: '-1,234.01', negRed: 'Red', negParens: '(1,234.01)', negRedParens: 'Red, (1,234.01)',
    formatScript: 'Format script', keystrokeScript: 'Keystroke script',
    valNone: 'None', valRange: 'Range', valCustom: 'Custom script',
    atLeast: 'At least', atMost: 'At most', script: 'Script',
    calcNone: 'None', calcSimple: 'Of fields', calcCustom: 'Custom script',
    operation: 'Operation', opSUM: 'Sum (+)', opPRD: 'Product (×)', opAVG: 'Average',
    opMIN: 'Minimum', opMAX: 'Maximum', ofFields: 'Fields',
    apply: 'Apply', up: 'Up', down: 'Down', remove: 'Remove',
    noCalculated: 'No field is calculated.',
    trigger: 'When',
    trAction: 'Clicked', trMouseUp: 'Mouse released', trMouseDown: 'Mouse pressed',
    trMouseEnter: 'Mouse enters', trMouseExit: 'Mouse leaves', trFocus: 'Gets the focus',
    trBlur: 'Loses the focus',
    addAction: 'Add an action…',
    acJavaScript: 'Run a script', acURI: 'Open a web link', acSubmit: 'Submit the form',
    acReset: 'Reset the form', acHide: 'Show or hide fields', acGoTo: 'Go to a page',
    acNamed: 'Menu command', acLaunch: 'Open a file', acOther: 'Other action (kept as it is)',
    url: 'Address', submitAs: 'Send as', fields: 'Fields (none: all)', hide: 'Hide',
    show: 'Show', page: 'Page', command: 'Command', file: 'File',
    NextPage: 'Next page', PrevPage: 'Previous page', FirstPage: 'First page',
    LastPage: 'Last page', Print: 'Print',
    noActions: 'No action.',
    badNumber: '{0} must be a number.',
    rangeOrder: 'The least value is above the greatest: no value could be entered.',
    needFields: 'Choose at least one field to calculate from.',
  },
  ja: {
    behaviour: '動作',
    format: '書式',
    validate: '検証',
    calculate: '計算',
    calculationOrder: '計算の順序',
    actions: 'アクション',
    differ: '選択したウィジェットで値が異なります。適用するとすべてに設定されます。',
    fmtNone: 'なし', fmtNumber: '数値', fmtPercent: 'パーセント', fmtDate: '日付',
    fmtTime: '時刻', fmtSpecial: '特殊', fmtCustom: 'カスタムスクリプト',
    decimals: '小数点以下の桁数', separator: '区切り', negative: '負の数',
    currency: '通貨記号', symbolBefore: '記号を数値の前に付ける',
    pattern: 'パターン', special: '種類',
    zip: '郵便番号 (米国)', zip4: '郵便番号 + 4 (米国)', phone: '電話番号 (米国)',
    ssn: '社会保障番号 (米国)',
    negMinus: '-1,234.01', negRed: '赤', negParens: '(1,234.01)', negRedParens: '赤、(1,234.01)',
    formatScript: '書式スクリプト', keystrokeScript: 'キーストロークスクリプト',
    valNone: 'なし', valRange: '範囲', valCustom: 'カスタムスクリプト',
    atLeast: '最小値', atMost: '最大値', script: 'スクリプト',
    calcNone: 'なし', calcSimple: 'フィールドから', calcCustom: 'カスタムスクリプト',
    operation: '演算', opSUM: '合計 (+)', opPRD: '積 (×)', opAVG: '平均',
    opMIN: '最小', opMAX: '最大', ofFields: 'フィールド',
    apply: '適用', up: '上へ', down: '下へ', remove: '削除',
    noCalculated: '計算されるフィールドはありません。',
    trigger: 'タイミング',
    trAction: 'クリック時', trMouseUp: 'マウスボタンを離したとき',
    trMouseDown: 'マウスボタンを押したとき', trMouseEnter: 'マウスが入ったとき',
    trMouseExit: 'マウスが出たとき', trFocus: 'フォーカスを得たとき',
    trBlur: 'フォーカスを失ったとき',
    addAction: 'アクションを追加…',
    acJavaScript: 'スクリプトを実行', acURI: 'Web リンクを開く', acSubmit: 'フォームを送信',
    acReset: 'フォームをリセット', acHide: 'フィールドの表示/非表示', acGoTo: 'ページに移動',
    acNamed: 'メニューコマンド', acLaunch: 'ファイルを開く',
    acOther: 'その他のアクション (そのまま保持)',
    url: 'アドレス', submitAs: '送信形式', fields: 'フィールド (なし: すべて)', hide: '隠す',
    show: '表示する', page: 'ページ', command: 'コマンド', file: 'ファイル',
    NextPage: '次のページ', PrevPage: '前のページ', FirstPage: '最初のページ',
    LastPage: '最後のページ', Print: '印刷',
    noActions: 'アクションはありません。',
    badNumber: '{0}は数値で入力してください。',
    rangeOrder: '最小値が最大値より大きいため、どの値も入力できません。',
    needFields: '計算に使うフィールドを 1 つ以上選んでください。',
  },
});

const widgetTriggers = ['Action', 'MouseUp', 'MouseDown', 'MouseEnter', 'MouseExit', 'Focus',
  'Blur'];
const separators = ['1,234.56', '1234.56', '1.234,56', '1234,56'];
const datePatterns = ['m/d/yy', 'mm/dd/yyyy', 'dd/mm/yyyy', 'yyyy/mm/dd', 'yyyy-mm-dd',
  'd-mmm-yyyy', 'mmm d, yyyy'];
const timePatterns = ['HH:MM', 'h:MM tt', 'HH:MM:ss', 'h:MM:ss tt'];
const submitFormats = [['FDF', 0], ['HTML', 4], ['XFDF', 32], ['PDF', 256]];
const namedCommands = ['NextPage', 'PrevPage', 'FirstPage', 'LastPage', 'Print'];

let commit = null;
let current = null;   // state.actions as last shown
let chosenTrigger = 'Action';

// ---- scripts ----

const js = (script) => ({'action-type': JAVASCRIPT, script});
const str = (s) => JSON.stringify(String(s));
const scriptOf = (record) =>
  record && record['action-type'] === JAVASCRIPT && !record['next-action'] ? record.script : null;
// The arguments of a call to fn that is the whole script (a trailing semicolon allowed).
function callArgs(script, fn) {
  const m = script?.trim().match(new RegExp(`^${fn}\\s*\\((.*)\\)\\s*;?$`, 's'));
  if (!m) return null;
  try {
    return JSON.parse(`[${m[1].replace(/new Array\(([^)]*)\)/g, '[$1]')}]`);
  } catch {
    return null;
  }
}

// What the format and keystroke actions say, as the panel's choices.
function readFormat(format, keystroke) {
  if (!format && !keystroke) return {kind: 'None'};
  const f = scriptOf(format), k = scriptOf(keystroke);
  let a;
  if ((a = callArgs(f, 'AFNumber_Format')) && a.length >= 6 && callArgs(k, 'AFNumber_Keystroke'))
    return {kind: 'Number', decimals: a[0], separator: a[1], negative: a[2], currency: a[4],
      before: Boolean(a[5])};
  if ((a = callArgs(f, 'AFPercent_Format')) && callArgs(k, 'AFPercent_Keystroke'))
    return {kind: 'Percent', decimals: a[0], separator: a[1] ?? 0};
  if ((a = callArgs(f, 'AFDate_FormatEx')) && callArgs(k, 'AFDate_KeystrokeEx'))
    return {kind: 'Date', pattern: a[0]};
  if ((a = callArgs(f, 'AFTime_FormatEx')) && callArgs(k, 'AFTime_KeystrokeEx'))
    return {kind: 'Time', pattern: a[0]};
  if ((a = callArgs(f, 'AFSpecial_Format')) && callArgs(k, 'AFSpecial_Keystroke'))
    return {kind: 'Special', which: a[0]};
  return {kind: 'Custom', format: f ?? '', keystroke: k ?? '',
    opaque: (format && f === null) || (keystroke && k === null)};
}

function writeFormat(c) {
  switch (c.kind) {
    case 'None': return {Format: null, Keystroke: null};
    case 'Number': {
      const args = `${c.decimals}, ${c.separator}, ${c.negative}, 0, ${str(c.currency)}, ` +
        `${c.before}`;
      return {Format: js(`AFNumber_Format(${args});`), Keystroke: js(`AFNumber_Keystroke(${args});`)};
    }
    case 'Percent':
      return {Format: js(`AFPercent_Format(${c.decimals}, ${c.separator});`),
        Keystroke: js(`AFPercent_Keystroke(${c.decimals}, ${c.separator});`)};
    case 'Date':
      return {Format: js(`AFDate_FormatEx(${str(c.pattern)});`),
        Keystroke: js(`AFDate_KeystrokeEx(${str(c.pattern)});`)};
    case 'Time':
      return {Format: js(`AFTime_FormatEx(${str(c.pattern)});`),
        Keystroke: js(`AFTime_KeystrokeEx(${str(c.pattern)});`)};
    case 'Special':
      return {Format: js(`AFSpecial_Format(${c.which});`),
        Keystroke: js(`AFSpecial_Keystroke(${c.which});`)};
    default:
      return {Format: c.format ? js(c.format) : null, Keystroke: c.keystroke ? js(c.keystroke) : null};
  }
}

function readValidate(record) {
  if (!record) return {kind: 'None'};
  const a = callArgs(scriptOf(record), 'AFRange_Validate');
  if (a && a.length === 4) return {kind: 'Range', min: a[0] ? a[1] : '', max: a[2] ? a[3] : ''};
  return {kind: 'Custom', script: scriptOf(record) ?? ''};
}

function readCalculate(record) {
  if (!record) return {kind: 'None'};
  const a = callArgs(scriptOf(record), 'AFSimple_Calculate');
  if (a && a.length === 2 && Array.isArray(a[1])) return {kind: 'Simple', op: a[0], fields: a[1]};
  return {kind: 'Custom', script: scriptOf(record) ?? ''};
}

// ---- building blocks ----

function el(tag, props = {}, ...children) {
  const e = document.createElement(tag);
  for (const [k, v] of Object.entries(props)) {
    if (v === undefined) continue;
    if (k === 'text') e.dataset.text = v;
    else if (k in e && k !== 'list') e[k] = v;
    else e.setAttribute(k, v);
  }
  e.append(...children);
  return e;
}

function labelled(textKey, control) {
  return el('label', {className: 'row-line'}, el('span', {text: textKey}), control);
}

function select(options, value) {
  // options: [[value, textKey or literal]]
  const s = el('select');
  for (const [v, label] of options) {
    const o = el('option', {value: String(v)});
    o.textContent = t(label);
    s.append(o);
  }
  s.value = String(value);
  return s;
}

function numberInput(value, min, max) {
  return el('input', {type: 'number', value: value ?? '', min, max, step: 'any'});
}

function fieldPicker(all, chosen) {
  const s = el('select', {multiple: true, size: Math.min(6, Math.max(3, all.length))});
  for (const name of all) {
    const o = el('option', {value: name});
    o.textContent = name;
    o.selected = chosen.includes(name);
    s.append(o);
  }
  return s;
}
const picked = (s) => [...s.selectedOptions].map((o) => o.value);

function applyButton(onApply) {
  const b = el('button', {type: 'button', className: 'apply', text: 'apply'});
  b.onclick = onApply;
  return b;
}

function differNote(trigger) {
  return current.mixed.includes(trigger) ? [el('p', {className: 'differ', text: 'differ'})] : [];
}

function number(input, labelKey) {
  if (input.value.trim() === '') return null;
  const v = Number(input.value);
  if (!Number.isFinite(v)) throw new Error(t('badNumber', t(labelKey)));
  return v;
}

// Runs build() for the part; a thrown message is shown on the part instead of a step.
function guardedApply(part, build) {
  return async () => {
    const problem = part.querySelector('.problem');
    problem.textContent = '';
    let actions;
    try {
      actions = build();
    } catch (e) {
      problem.textContent = e.message;
      return;
    }
    await commit({actions});
  };
}

// ---- the parts ----

function formatPart() {
  const f = current.field;
  const choice = readFormat(f.Format, f.Keystroke);
  const part = el('div', {className: 'part', id: 'format-part'});
  const kind = select([['None', 'fmtNone'], ['Number', 'fmtNumber'], ['Percent', 'fmtPercent'],
    ['Date', 'fmtDate'], ['Time', 'fmtTime'], ['Special', 'fmtSpecial'],
    ['Custom', 'fmtCustom']], choice.kind);
  kind.name = 'format-kind';
  const decimals = numberInput(choice.decimals ?? 2, 0, 10);
  decimals.name = 'decimals';
  const separator = select(separators.map((s, i) => [i, s]), choice.separator ?? 0);
  const negative = select([[0, 'negMinus'], [1, 'negRed'], [2, 'negParens'],
    [3, 'negRedParens']], choice.negative ?? 0);
  const currency = el('input', {type: 'text', value: choice.currency ?? '', size: 4});
  currency.name = 'currency';
  const before = el('input', {type: 'checkbox', checked: choice.before ?? true});
  const datePattern = el('input', {type: 'text', value: choice.kind === 'Date' ? choice.pattern :
    'mm/dd/yyyy', list: 'date-patterns'});
  datePattern.name = 'date-pattern';
  const dateList = el('datalist', {id: 'date-patterns'},
    ...datePatterns.map((p) => el('option', {value: p})));
  const timePattern = select(timePatterns.map((p) => [p, p]),
    choice.kind === 'Time' ? choice.pattern : 'HH:MM');
  const special = select([[0, 'zip'], [1, 'zip4'], [2, 'phone'], [3, 'ssn']], choice.which ?? 0);
  const formatScript = el('textarea', {rows: 3, value: choice.format ?? ''});
  const keystrokeScript = el('textarea', {rows: 3, value: choice.keystroke ?? ''});
  // Built on each change of kind: a control lives in one label at a time.
  const groups = {
    Number: () => [labelled('decimals', decimals), labelled('separator', separator),
      labelled('negative', negative), labelled('currency', currency),
      labelled('symbolBefore', before)],
    Percent: () => [labelled('decimals', decimals), labelled('separator', separator)],
    Date: () => [labelled('pattern', datePattern), dateList],
    Time: () => [labelled('pattern', timePattern)],
    Special: () => [labelled('special', special)],
    Custom: () => [labelled('formatScript', formatScript),
      labelled('keystrokeScript', keystrokeScript)],
  };
  const details = el('div', {className: 'details'});
  const showDetails = () => showIn(details, groups[kind.value]);
  kind.onchange = showDetails;
  showDetails();
  part.append(el('h4', {text: 'format'}), ...differNote('Format'), labelled('format', kind),
    details, el('p', {className: 'problem', role: 'alert'}),
    applyButton(guardedApply(part, () => {
      const c = {kind: kind.value};
      if (c.kind === 'Number' || c.kind === 'Percent') {
        c.decimals = Math.max(0, Math.min(10, Math.trunc(number(decimals, 'decimals') ?? 0)));
        c.separator = Number(separator.value);
      }
      if (c.kind === 'Number') {
        c.negative = Number(negative.value);
        c.currency = currency.value;
        c.before = before.checked;
      }
      if (c.kind === 'Date') c.pattern = datePattern.value.trim() || 'mm/dd/yyyy';
      if (c.kind === 'Time') c.pattern = timePattern.value;
      if (c.kind === 'Special') c.which = Number(special.value);
      if (c.kind === 'Custom') {
        c.format = formatScript.value;
        c.keystroke = keystrokeScript.value;
      }
      return writeFormat(c);
    })));
  return part;
}

function validatePart() {
  const choice = readValidate(current.field.Validate);
  const part = el('div', {className: 'part', id: 'validate-part'});
  const kind = select([['None', 'valNone'], ['Range', 'valRange'], ['Custom', 'valCustom']],
    choice.kind);
  kind.name = 'validate-kind';
  const min = numberInput(choice.min);
  min.name = 'at-least';
  const max = numberInput(choice.max);
  max.name = 'at-most';
  const script = el('textarea', {rows: 3, value: choice.script ?? ''});
  const details = el('div', {className: 'details'});
  const showDetails = () => showIn(details, {
    Range: () => [labelled('atLeast', min), labelled('atMost', max)],
    Custom: () => [labelled('script', script)],
  }[kind.value]);
  kind.onchange = showDetails;
  showDetails();
  part.append(el('h4', {text: 'validate'}), ...differNote('Validate'), labelled('validate', kind),
    details, el('p', {className: 'problem', role: 'alert'}),
    applyButton(guardedApply(part, () => {
      if (kind.value === 'None') return {Validate: null};
      if (kind.value === 'Custom') return {Validate: script.value ? js(script.value) : null};
      const lo = number(min, 'atLeast'), hi = number(max, 'atMost');
      if (lo === null && hi === null) return {Validate: null};
      if (lo !== null && hi !== null && lo > hi) throw new Error(t('rangeOrder'));
      return {Validate: js(`AFRange_Validate(${lo !== null}, ${lo ?? 0}, ${hi !== null}, ` +
        `${hi ?? 0});`)};
    })));
  return part;
}

function calculatePart(selectedNames) {
  const choice = readCalculate(current.field.Calculate);
  const part = el('div', {className: 'part', id: 'calculate-part'});
  const kind = select([['None', 'calcNone'], ['Simple', 'calcSimple'], ['Custom', 'calcCustom']],
    choice.kind);
  kind.name = 'calculate-kind';
  const op = select(['SUM', 'PRD', 'AVG', 'MIN', 'MAX'].map((o) => [o, `op${o}`]),
    choice.op ?? 'SUM');
  const sources = fieldPicker(current.fields.filter((n) => !selectedNames.includes(n)),
    choice.fields ?? []);
  sources.name = 'calculate-fields';
  const script = el('textarea', {rows: 3, value: choice.script ?? ''});
  const details = el('div', {className: 'details'});
  const showDetails = () => showIn(details, {
    Simple: () => [labelled('operation', op), labelled('ofFields', sources)],
    Custom: () => [labelled('script', script)],
  }[kind.value]);
  kind.onchange = showDetails;
  showDetails();
  part.append(el('h4', {text: 'calculate'}), ...differNote('Calculate'),
    labelled('calculate', kind), details, el('p', {className: 'problem', role: 'alert'}),
    applyButton(guardedApply(part, () => {
      if (kind.value === 'None') return {Calculate: null};
      if (kind.value === 'Custom') return {Calculate: script.value ? js(script.value) : null};
      const names = picked(sources);
      if (names.length === 0) throw new Error(t('needFields'));
      return {Calculate: js(`AFSimple_Calculate(${str(op.value)}, new Array(` +
        `${names.map(str).join(', ')}));`)};
    })));
  return part;
}

function orderPart(order) {
  const part = el('div', {className: 'part', id: 'order-part'});
  part.append(el('h4', {text: 'calculationOrder'}));
  if (order.length === 0) {
    part.append(el('p', {className: 'hint', text: 'noCalculated'}));
    return part;
  }
  const list = el('ol');
  order.forEach((name, i) => {
    const move = (to) => {
      const next = [...order];
      next.splice(i, 1);
      next.splice(to, 0, name);
      return commit({calculationOrder: next});
    };
    const up = el('button', {type: 'button', disabled: i === 0, title: t('up')}, '↑');
    const down = el('button', {type: 'button', disabled: i === order.length - 1,
      title: t('down')}, '↓');
    up.onclick = () => move(i - 1);
    down.onclick = () => move(i + 1);
    list.append(el('li', {}, el('span', {className: 'name'}, name), up, down));
  });
  part.append(list);
  return part;
}

// One action of a chain: its editor, and how to read the record back from it.
function actionEditor(record) {
  const type = record['action-type'];
  const box = el('div', {className: 'action'});
  const head = el('div', {className: 'action-head'});
  const remove = el('button', {type: 'button', className: 'remove', text: 'remove'});
  remove.onclick = () => box.remove();
  const kindKey = {[JAVASCRIPT]: 'acJavaScript', [URI]: 'acURI', [SUBMIT]: 'acSubmit',
    [RESET]: 'acReset', [HIDE]: 'acHide', [GOTO]: 'acGoTo', [NAMED]: 'acNamed',
    [LAUNCH]: 'acLaunch'}[type] ?? 'acOther';
  head.append(el('strong', {text: kindKey}), remove);
  box.append(head);
  let read = () => record;
  const fields = () => fieldPicker(current.fields, record['fields-data'] ??
    (record['hiding-fields'] ?? []).map((h) => h['hide-item-name']));
  switch (type) {
    case JAVASCRIPT: {
      const script = el('textarea', {rows: 3, value: record.script ?? ''});
      box.append(labelled('script', script));
      read = () => ({...record, script: script.value});
      break;
    }
    case URI: {
      const url = el('input', {type: 'url', value: record.url ?? ''});
      box.append(labelled('url', url));
      read = () => ({...record, url: url.value});
      break;
    }
    case SUBMIT: {
      const url = el('input', {type: 'url', value: record['submit-url']?.['file-path'] ?? ''});
      const flags = record['form-flags'] ?? 0;
      const as = select(submitFormats, submitFormats.find(([, bit]) => bit && (flags & bit))?.[1] ?? 0);
      const chosen = fields();
      box.append(labelled('url', url), labelled('submitAs', as), labelled('fields', chosen));
      read = () => ({...record, 'submit-url': {'file-path': url.value},
        'form-flags': (flags & ~(4 | 32 | 256)) | Number(as.value), 'fields-data': picked(chosen)});
      break;
    }
    case RESET: {
      const chosen = fields();
      box.append(labelled('fields', chosen));
      read = () => ({...record, 'form-flags': record['form-flags'] ?? 0,
        'fields-data': picked(chosen)});
      break;
    }
    case HIDE: {
      const hiding = select([[1, 'hide'], [0, 'show']], record['is-hiding'] === false ? 0 : 1);
      const chosen = fields();
      box.append(labelled('hide', hiding), labelled('fields', chosen));
      read = () => ({...record, 'is-hiding': hiding.value === '1',
        'hiding-fields': picked(chosen).map((n) => ({'hide-item-type': 1, 'hide-item-name': n}))});
      break;
    }
    case GOTO: {
      const page = numberInput((record.destination?.['page-index'] ?? 0) + 1, 1);
      box.append(labelled('page', page));
      read = () => ({...record, destination: record.destination &&
        record.destination['page-index'] === Number(page.value) - 1 ? record.destination :
        {'page-index': Math.max(0, Math.trunc(Number(page.value) || 1) - 1), type: FIT,
          params: [0, 0, 0]}});
      break;
    }
    case NAMED: {
      const names = namedCommands.includes(record.name) ? namedCommands :
        [...namedCommands, record.name ?? ''];
      const name = select(names.map((n) => [n, n]), record.name ?? 'NextPage');
      box.append(labelled('command', name));
      read = () => ({...record, name: name.value});
      break;
    }
    case LAUNCH: {
      const file = el('input', {type: 'text', value: record['file-spec']?.['file-path'] ?? ''});
      box.append(labelled('file', file));
      read = () => ({...record, 'file-spec': {'file-path': file.value}});
      break;
    }
    default:
      break;
  }
  box.readRecord = () => {
    const r = read();
    delete r['next-action'];
    return r;
  };
  return box;
}

const blank = {
  [JAVASCRIPT]: () => js(''),
  [URI]: () => ({'action-type': URI, url: 'https://'}),
  [SUBMIT]: () => ({'action-type': SUBMIT, 'submit-url': {'file-path': 'https://'},
    'form-flags': 4, 'fields-data': []}),
  [RESET]: () => ({'action-type': RESET, 'form-flags': 0, 'fields-data': []}),
  [HIDE]: () => ({'action-type': HIDE, 'is-hiding': true, 'hiding-fields': []}),
  [GOTO]: () => ({'action-type': GOTO, destination: {'page-index': 0, type: FIT,
    params: [0, 0, 0]}}),
  [NAMED]: () => ({'action-type': NAMED, name: 'NextPage'}),
  [LAUNCH]: () => ({'action-type': LAUNCH, 'file-spec': {'file-path': ''}}),
};

function chainOf(record) {
  const chain = [];
  for (let r = record; r && typeof r === 'object' && chain.length < 1000; r = r['next-action'])
    chain.push(r);
  return chain;
}

function actionsPart() {
  const part = el('div', {className: 'part', id: 'actions-part'});
  const triggers = widgetTriggers.filter((name) => name in current.widget ||
    current.mixed.includes(name));
  if (!triggers.includes(chosenTrigger)) chosenTrigger = triggers[0];
  const trigger = select(triggers.map((name) => [name, `tr${name}`]), chosenTrigger);
  trigger.name = 'trigger';
  const list = el('div', {className: 'chain'});
  const add = select([['', 'addAction'], [JAVASCRIPT, 'acJavaScript'], [URI, 'acURI'],
    [SUBMIT, 'acSubmit'], [RESET, 'acReset'], [HIDE, 'acHide'], [GOTO, 'acGoTo'],
    [NAMED, 'acNamed'], [LAUNCH, 'acLaunch']], '');
  add.name = 'add-action';
  add.onchange = () => {
    if (add.value) list.append(translated(actionEditor(blank[add.value]())));
    add.value = '';
  };
  const note = el('div');
  const fill = () => {
    chosenTrigger = trigger.value;
    note.replaceChildren(...differNote(chosenTrigger));
    list.replaceChildren(...chainOf(current.widget[chosenTrigger])
      .map((r) => translated(actionEditor(r))));
  };
  trigger.onchange = fill;
  fill();
  part.append(el('h4', {text: 'actions'}), labelled('trigger', trigger), note, list, add,
    el('p', {className: 'problem', role: 'alert'}),
    applyButton(guardedApply(part, () => {
      const records = [...list.querySelectorAll('.action')].map((b) => b.readRecord());
      let chain = null;
      for (const r of records.reverse()) chain = chain ? {...r, 'next-action': chain} : r;
      return {[chosenTrigger]: chain};
    })));
  return part;
}

// Puts what make() builds (nothing without it) in box, in the page's language.
function showIn(box, make) {
  box.replaceChildren(...(make ? make() : []));
  translate(box);
}

function translated(e) {
  translate(e);
  return e;
}

// ---- the section ----

function section() {
  let s = document.getElementById('behaviour-sheet');
  if (!s) {
    s = el('section', {id: 'behaviour-sheet', hidden: true},
      el('h3', {text: 'behaviour'}), el('div', {className: 'rows'}));
    document.getElementById('panel-empty').before(s);
  }
  return s;
}

// Shows state.actions; send(step) sends a step and resolves after its answer.
export function renderActions(state, send) {
  commit = send;
  const s = section();
  const a = state.actions;
  if (!a) {
    current = null;
    s.hidden = true;
    s.dataset.shape = '';
    return;
  }
  // Rebuilt only when what it shows changed, so that a part being edited is kept.
  const selectedNames = (state.selection?.all ?? [state.selection]).map((w) => w?.field);
  const shape = JSON.stringify([a, state.calculationOrder, selectedNames, state.lang]);
  s.hidden = false;
  s.dataset.fields = selectedNames.join('\n');
  if (s.dataset.shape === shape) return;
  s.dataset.shape = shape;
  current = a;
  const parts = [];
  if ('Format' in a.field || a.mixed.includes('Format')) {
    parts.push(formatPart(), validatePart(), calculatePart(selectedNames));
  }
  parts.push(orderPart(state.calculationOrder ?? []), actionsPart());
  s.querySelector('.rows').replaceChildren(...parts);
  translate(s);
}
