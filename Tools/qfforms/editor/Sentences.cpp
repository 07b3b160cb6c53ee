#include "Sentences.h"


namespace qfforms {

namespace {

struct Entry {
    Sentence key;
    const char* en;
    const char* ja;
};

constexpr Entry kTable[] = {
    {Sentence::Moved, "The field could not be moved or resized",
     "フィールドを移動またはサイズ変更できませんでした"},
    {Sentence::Made, "The field could not be made", "フィールドを作成できませんでした"},
    {Sentence::Deleted, "The field could not be deleted", "フィールドを削除できませんでした"},
    {Sentence::Copied, "The field could not be copied", "フィールドをコピーできませんでした"},
    {Sentence::Cut, "The field could not be cut", "フィールドを切り取れませんでした"},
    {Sentence::Duplicated, "The field could not be duplicated",
     "フィールドを複製できませんでした"},
    {Sentence::Renamed, "The field could not be renamed",
     "フィールドの名前を変更できませんでした"},
    {Sentence::OptionsSet, "The options could not be set", "選択肢を設定できませんでした"},
    {Sentence::ValueSet, "The value could not be set", "値を設定できませんでした"},
    {Sentence::ActionsSet, "The behaviour could not be set", "動作を設定できませんでした"},
    {Sentence::CalculationOrdered, "The calculation order could not be changed",
     "計算の順序を変更できませんでした"},
    {Sentence::Grouped, "The fields could not be grouped as radio buttons",
     "ラジオボタンにまとめられませんでした"},
    {Sentence::TabOrdered, "The tab order could not be changed",
     "タブ順序を変更できませんでした"},
    {Sentence::Pasted, "The field could not be pasted", "フィールドを貼り付けられませんでした"},
    {Sentence::Arranged, "The fields could not be arranged", "フィールドを整列できませんでした"},
    {Sentence::Placed, "The copies could not be placed", "コピーを配置できませんでした"},
    {Sentence::Detected, "The detected fields could not be made",
     "検出したフィールドを作成できませんでした"},
    {Sentence::DetectRead, "The page's drawing could not be read",
     "ページの描画を読み取れませんでした"},
    {Sentence::Undone, "The last step could not be undone", "元に戻せませんでした"},
    {Sentence::Redone, "The step could not be redone", "やり直せませんでした"},
    {Sentence::ToolStarted, "The tool could not start", "ツールを開始できませんでした"},
    {Sentence::Selected, "The field could not be selected", "フィールドを選択できませんでした"},
    {Sentence::ViewChanged, "The view could not be changed", "表示を変更できませんでした"},
    {Sentence::ToolAction, "The tool could not do that", "ツールの操作を実行できませんでした"},
    {Sentence::Saved, "{0} could not be saved", "{0} を保存できませんでした"},
    {Sentence::Refused,
     "the document refused the change ({0}). Undo the last step or reload the page.",
     "文書が変更を受け付けませんでした（{0}）。最後の操作を元に戻すか、"
     "ページを再読み込みしてください。"},
    {Sentence::NotButtons,
     "Only check boxes and radio buttons can be grouped as radio buttons; {0} is {1}.",
     "ラジオボタンにまとめられるのはチェックボックスとラジオボタンだけです。"
     "{0} は{1}です。"},
    {Sentence::ClipboardEmpty, "The clipboard holds no field: copy one first.",
     "クリップボードにフィールドがありません。先にフィールドをコピーしてください。"},
    {Sentence::NoFieldToJoin,
     "The document has no field of the copied field's name to join; Paste makes a new field.",
     "コピーしたフィールドと同じ名前のフィールドが文書にないため、リンク貼り付けできません。"
     "「貼り付け」で新しいフィールドとして貼り付けてください。"},
    {Sentence::CannotJoin,
     "The field of the copied field's name is of another kind: the copy cannot join it. "
     "Paste makes a new field.",
     "コピーしたフィールドと同じ名前のフィールドは種類が異なるため、リンク貼り付けできません。"
     "「貼り付け」で新しいフィールドとして貼り付けてください。"},
    {Sentence::BadRecord, "the clipboard holds no field this editor can paste ({0}).",
     "クリップボードの内容は貼り付けられるフィールドではありません（{0}）。"},
    {Sentence::ControlCharacter,
     "a field name cannot hold tabs, line breaks or other control characters ({0}).",
     "フィールド名にタブ、改行などの制御文字は使えません（{0}）。"},
    {Sentence::Locked, "{0} is locked: unlock it first.",
     "{0} はロックされています。先にロックを解除してください。"},
    {Sentence::SaveAsName,
     "Save as takes a file name ending in .pdf, without folders; the file goes beside the "
     "document.",
     "「名前を付けて保存」には、フォルダーを含まない .pdf で終わるファイル名を入力してください。"
     "ファイルは文書と同じフォルダーに保存されます。"},
    {Sentence::Exists, "{0} exists already. Replace it?", "{0} は既にあります。置き換えますか?"},
    {Sentence::SampleNotSaved,
     "The built-in sample is not saved over: choose a name with Save as.",
     "組み込みのサンプルには上書き保存できません。「名前を付けて保存」で名前を付けてください。"},
    {Sentence::Signed,
     "The document is signed: saving rewrites the whole file, and its signatures will no "
     "longer hold. Save anyway?",
     "この文書には署名があります。保存するとファイル全体が書き直され、署名は無効になります。"
     "保存しますか?"},
    {Sentence::ReadOnly,
     "{0} could not be saved: the file is read-only. Save the document under another name "
     "with Save as.",
     "{0} を保存できませんでした。ファイルは読み取り専用です。"
     "「名前を付けて保存」で別の名前を付けて保存してください。"},
    {Sentence::NotRegular,
     "{0} could not be saved: it is not a regular file (a folder, a FIFO, a device or a "
     "broken link), and it is not written over.",
     "{0} を保存できませんでした。通常のファイルではない（フォルダー、FIFO、デバイス、"
     "壊れたリンク）ため、上書きしません。"},
    {Sentence::NoPermission,
     "{0} could not be saved: there is no permission to write in its folder, or its file "
     "system is read-only.",
     "{0} を保存できませんでした。フォルダーへの書き込み権限がないか、"
     "ファイルシステムが読み取り専用です。"},
    {Sentence::SizeLimit,
     "{0} could not be saved: it would exceed the size limit for files. The file is as it "
     "was.",
     "{0} を保存できませんでした。ファイルサイズの上限を超えます。ファイルは元のままです。"},
    {Sentence::DiskFull, "{0} could not be saved: the disk is full. The file is as it was.",
     "{0} を保存できませんでした。ディスクの空きがありません。ファイルは元のままです。"},
    {Sentence::NotWritten, "{0} could not be saved ({1}). The file is as it was.",
     "{0} を保存できませんでした（{1}）。ファイルは元のままです。"},
    {Sentence::NotOpen, "The document is not open: it needs its password.",
     "文書はまだ開いていません。パスワードが必要です。"},
    {Sentence::OpenAlready, "The document is open already.", "文書は既に開いています。"},
    {Sentence::PasswordWrong, "The password is wrong.", "パスワードが違います。"},
    {Sentence::PasswordNotOwner,
     "This password opens the document, but its permissions do not allow changing its "
     "form: give its owner password.",
     "このパスワードで文書は開きますが、権限によりフォームを変更できません。"
     "権限パスワードを入力してください。"},
    {Sentence::Languages, "The languages are \"en\" and \"ja\".",
     "言語は \"en\" と \"ja\" です。"},
    {Sentence::NothingSelected, "No field is selected: select one first.",
     "フィールドが選択されていません。先に選択してください。"},
    {Sentence::TooFew, "select at least {0} fields (Shift+click, or drag around them).",
     "フィールドを {0} 個以上選択してください（Shift+クリック、または囲むようにドラッグ）。"},
    {Sentence::DoesNotFit,
     "they would reach past the page: place fewer, or with a smaller gap.",
     "コピーがページの外にはみ出します。数を減らすか、間隔を狭くしてください。"},
    {Sentence::TooMany, "at most {0} copies are placed at once.",
     "一度に配置できるコピーは {0} 個までです。"},
    {Sentence::DetectPage, "Choose a page of the document to detect fields on.",
     "フィールドを検出するページを選んでください。"},
    {Sentence::DetectFirst,
     "Detect the fields of the page again: the proposals chosen are not those of its last "
     "detection.",
     "ページのフィールドをもう一度検出してください。選んだ候補は最後の検出のものではありません。"},
    {Sentence::DetectNoBoxes, "No fields found: the page draws no boxes or lines.",
     "フィールドは見つかりませんでした。このページには枠も線もありません。"},
    {Sentence::DetectNone, "No fields found among the page's lines and boxes.",
     "ページの線と枠からフィールドは見つかりませんでした。"},
    {Sentence::DetectScanned,
     "No fields found: the page is a scanned image, and only drawn boxes and lines are read.",
     "フィールドは見つかりませんでした。このページはスキャン画像です。読み取れるのは描かれた枠と線だけです。"},
    {Sentence::DetectOperatorsSkipped,
     "The page draws too much: only its first {0} drawing operators were read.",
     "ページの描画が多すぎるため、最初の {0} 個の描画命令だけを読み取りました。"},
    {Sentence::DetectShapesSkipped,
     "The page draws too much: only its first {0} lines and boxes were looked at.",
     "ページの描画が多すぎるため、最初の {0} 本の線と枠だけを調べました。"},
    {Sentence::DetectKept, "Places that hold fields already were left as they are: {0}.",
     "{0} か所には既にフィールドがあるため、そのままにしました。"},
    {Sentence::KindText, "a text field", "テキストフィールド"},
    {Sentence::KindCombo, "a combo box", "コンボボックス"},
    {Sentence::KindList, "a list box", "リストボックス"},
    {Sentence::KindPush, "a push button", "プッシュボタン"},
    {Sentence::KindSignature, "a signature field", "署名フィールド"},
    {Sentence::KindOther, "not a form field", "フォームフィールド以外の注釈"},
};

const Entry* find(Sentence s) {
    for (const Entry& e : kTable) {
        if (e.key == s) return &e;
    }
    return nullptr;
}

std::string fill(std::string text, std::initializer_list<std::string> args) {
    size_t k = 0;
    for (const std::string& a : args) {
        const std::string mark = "{" + std::to_string(k++) + "}";
        for (size_t at = text.find(mark); at != std::string::npos;
             at = text.find(mark, at + a.size()))
            text.replace(at, mark.size(), a);
    }
    return text;
}

} // namespace

std::string sentence(const std::string& lang, Sentence s,
                     std::initializer_list<std::string> args) {
    const Entry* e = find(s);
    if (!e) return {};
    return fill(lang == "ja" ? e->ja : e->en, args);
}

std::string failed(const std::string& lang, Sentence what, const std::string& reason,
                   bool explained) {
    const std::string head = sentence(lang, what);
    if (lang == "ja")
        return head + "。" + (explained ? reason : sentence(lang, Sentence::Refused, {reason}));
    if (!explained) return head + ": " + sentence(lang, Sentence::Refused, {reason});
    // A sentence of its own follows a full stop, a clause of the editor's a colon.
    const bool own = !reason.empty() && reason[0] >= 'A' && reason[0] <= 'Z';
    return head + (own ? ". " : ": ") + reason;
}

} // namespace qfforms
