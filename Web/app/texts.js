// The page's own words in English and Japanese. What the module says comes from the server
// already in the editor's language.

const table = {
  en: {
    Select: 'Select',
    TextFieldCreate: 'Text field',
    CheckBoxCreate: 'Check box',
    RadioGroupCreate: 'Radio buttons',
    ComboBoxCreate: 'Combo box',
    ListBoxCreate: 'List box',
    PushButtonCreate: 'Button',
    PrintButtonCreate: 'Print button',
    EmailButtonCreate: 'Email button',
    SaveButtonCreate: 'Save button',
    SubmitButtonCreate: 'Submit button',
    DigitalSignatureFieldCreate: 'Signature',
    FormTabOrder: 'Tab order',
    tabRows: 'Tab order: rows',
    tabColumns: 'Tab order: columns',
    group: 'Group as radio buttons',
    groupHint: 'Shift+click widgets in select mode to select them together',
    undo: 'Undo',
    redo: 'Redo',
    undoWhat: 'Undo {0}',
    redoWhat: 'Redo {0}',
    copy: 'Copy',
    cut: 'Cut',
    paste: 'Paste',
    pasteLinked: 'Paste linked',
    pasteLinkedHint: 'Paste as another widget of the copied field (one value) (Ctrl+Shift+V)',
    duplicate: 'Duplicate',
    delete: 'Delete',
    zoomIn: 'Zoom in (Ctrl++)',
    zoomOut: 'Zoom out (Ctrl+-)',
    fitWidth: 'Fit width',
    fitPage: 'Fit page',
    actualSize: '100%',
    rotate: 'Rotate view',
    preview: 'Preview',
    save: 'Save',
    saveAs: 'Save as',
    saveAsIn: 'in {0}',
    saved: 'Saved {0}',
    language: 'Language',
    properties: 'Properties',
    toolSheet: 'Tool',
    widgetSheet: 'Widget',
    nothing: 'Nothing to show: pick a tool or select a widget.',
    display: 'Display',
    export: 'Export',
    addRow: 'Add row',
    removeRow: 'Remove',
    apply: 'Apply',
    marked: '{0} selected',
    serverGone: 'The editor\'s server does not answer: is qfforms edit still running? ' +
      'Start it again and reload the page.',
    requestFailed: 'The editor\'s server refused the request ({0}).',
    pageFailed: 'Page {0} could not be drawn: {1}',
    encrypted: 'Encrypted',
    passwordTitle: 'Password',
    passwordNeeded: '{0} is encrypted. Enter its password to open it.',
    ownerNeeded: 'The permissions of {0} do not allow changing its form. ' +
      'Enter its owner password to edit it.',
    passwordLabel: 'Password',
    passwordWrong: 'The password is wrong.',
    passwordNotOwner: 'This password opens the document, but it is not the owner password.',
    open: 'Open',
  },
  ja: {
    Select: '選択',
    TextFieldCreate: 'テキストフィールド',
    CheckBoxCreate: 'チェックボックス',
    RadioGroupCreate: 'ラジオボタン',
    ComboBoxCreate: 'コンボボックス',
    ListBoxCreate: 'リストボックス',
    PushButtonCreate: 'ボタン',
    PrintButtonCreate: '印刷ボタン',
    EmailButtonCreate: 'メール送信ボタン',
    SaveButtonCreate: '保存ボタン',
    SubmitButtonCreate: '送信ボタン',
    DigitalSignatureFieldCreate: '電子署名',
    FormTabOrder: 'タブ順序',
    tabRows: 'タブ順序: 行ごと',
    tabColumns: 'タブ順序: 列ごと',
    group: 'ラジオボタンにまとめる',
    groupHint: '選択モードで Shift+クリックして複数のウィジェットを選択します',
    undo: '元に戻す',
    redo: 'やり直し',
    undoWhat: '元に戻す: {0}',
    redoWhat: 'やり直し: {0}',
    copy: 'コピー',
    cut: '切り取り',
    paste: '貼り付け',
    pasteLinked: 'リンク貼り付け',
    pasteLinkedHint: 'コピーしたフィールドのウィジェットとして貼り付け（値を共有）(Ctrl+Shift+V)',
    duplicate: '複製',
    delete: '削除',
    zoomIn: '拡大 (Ctrl++)',
    zoomOut: '縮小 (Ctrl+-)',
    fitWidth: '幅に合わせる',
    fitPage: 'ページ全体',
    actualSize: '100%',
    rotate: '表示を回転',
    preview: 'プレビュー',
    save: '保存',
    saveAs: '名前を付けて保存',
    saveAsIn: '保存先: {0}',
    saved: '{0} に保存しました',
    language: '言語',
    properties: 'プロパティ',
    toolSheet: 'ツール',
    widgetSheet: 'ウィジェット',
    nothing: 'ツールを選ぶかウィジェットを選択してください。',
    display: '表示名',
    export: '書き出し値',
    addRow: '行を追加',
    removeRow: '削除',
    apply: '適用',
    marked: '{0} 個を選択',
    serverGone: 'エディターのサーバーが応答しません。qfforms edit は実行中ですか? ' +
      'もう一度起動して、ページを再読み込みしてください。',
    requestFailed: 'エディターのサーバーが要求を拒否しました（{0}）。',
    pageFailed: '{0} ページ目を描けません: {1}',
    encrypted: '暗号化',
    passwordTitle: 'パスワード',
    passwordNeeded: '{0} は暗号化されています。' +
      '開くにはパスワードを入力してください。',
    ownerNeeded: '{0} の権限ではフォームを変更できません。' +
      '編集するには権限パスワードを入力してください。',
    passwordLabel: 'パスワード',
    passwordWrong: 'パスワードが違います。',
    passwordNotOwner: 'このパスワードで文書は開きますが、' +
      '権限パスワードではありません。',
    open: '開く',
  },
};

// What the person reads for the host's command names on the undo and redo stacks.
const commandLabels = {
  en: {
    Annot_SetRect: 'move', AddWidget: 'add field', Annot_Delete: 'delete',
    Annot_Insert: 'add', Annot_Lock: 'lock', Annot_Unlock: 'unlock',
    Widget_Rename: 'rename', Widget_SetAttribute: 'change property',
    GroupRadioButtons: 'group as radio buttons', TabOrderAnnot: 'tab order',
    MoveAnnotsFocusOrder: 'tab order', AutoTabOrderAnnot: 'tab order',
    Field_SetOptions: 'option list', PasteAnnot: 'paste', SetProperty: 'change property',
    SetActions: 'change behaviour', SetCalculationOrder: 'calculation order',
    other: 'change',
  },
  ja: {
    Annot_SetRect: '移動', AddWidget: 'フィールドの追加', Annot_Delete: '削除',
    Annot_Insert: '追加', Annot_Lock: 'ロック', Annot_Unlock: 'ロック解除',
    Widget_Rename: '名前の変更', Widget_SetAttribute: 'プロパティの変更',
    GroupRadioButtons: 'ラジオボタンにまとめる', TabOrderAnnot: 'タブ順序',
    MoveAnnotsFocusOrder: 'タブ順序', AutoTabOrderAnnot: 'タブ順序',
    Field_SetOptions: '選択肢リスト', PasteAnnot: '貼り付け', SetProperty: 'プロパティの変更',
    SetActions: '動作の変更', SetCalculationOrder: '計算の順序',
    other: '変更',
  },
};

let lang = 'en';

// Adds a panel's own words ({en: {...}, ja: {...}}) to the table.
export function addTexts(words) {
  for (const [l, entries] of Object.entries(words)) Object.assign(table[l], entries);
}

// The words for a command on the undo stack: never its internal name. Every property
// command ("SetProperty...") is a change of property.
export function commandLabel(name) {
  const labels = commandLabels[lang];
  const key = name.startsWith('SetProperty') ? 'SetProperty' : name;
  return labels[key] ?? labels.other;
}

export function setLanguage(l) {
  lang = table[l] ? l : 'en';
  document.documentElement.lang = lang;
}

// The text for key with {0}, {1}... filled in; the key itself when there is none.
export function t(key, ...args) {
  const text = table[lang][key] ?? table.en[key] ?? key;
  return text.replace(/\{(\d)\}/g, (_, i) => String(args[i] ?? ''));
}

// Fills the elements under root that name their words: data-text for the content,
// data-title for the title (and the accessible name of icon buttons).
export function translate(root = document) {
  for (const e of root.querySelectorAll('[data-text]')) e.textContent = t(e.dataset.text);
  for (const e of root.querySelectorAll('[data-title]')) {
    e.title = t(e.dataset.title);
    e.setAttribute('aria-label', e.title);
  }
}
