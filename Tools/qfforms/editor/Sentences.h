// What the editor's server says to the person, in the editor's language: one table of
// sentences in English and Japanese (Sentences.cpp). The forms module's own messages come
// translated by the host's string catalog; a sentence here may carry one as a detail.
#pragma once

#include <initializer_list>
#include <string>

namespace qfforms {

enum class Sentence {
    // What failed: the start of a failure sentence, by the step the person took.
    Moved,
    Made,
    Deleted,
    Copied,
    Cut,
    Duplicated,
    Renamed,
    OptionsSet,
    ValueSet,
    ActionsSet,
    CalculationOrdered,
    Grouped,
    TabOrdered,
    Pasted,
    Arranged,
    Placed,
    Detected,
    DetectRead,
    Undone,
    Redone,
    ToolStarted,
    Selected,
    ViewChanged,
    ToolAction,
    Saved,          // {0}: the file's name
    // Why, after "what failed: ".
    Refused,        // {0}: the detail (the module's or pdfcore's text)
    // The editor's own refusals and answers.
    NotButtons,     // {0}: the field's name, {1}: its kind
    ClipboardEmpty,
    NoFieldToJoin,
    CannotJoin,
    BadRecord,      // {0}: the detail
    ControlCharacter,  // {0}: the detail
    Locked,         // {0}: the field's name
    SaveAsName,
    Exists,         // {0}: the file's name
    SampleNotSaved,
    Signed,
    ReadOnly,       // {0}: the file's name
    NotRegular,     // {0}: the file's name
    NoPermission,   // {0}: the file's name
    SizeLimit,      // {0}: the file's name
    DiskFull,       // {0}: the file's name
    NotWritten,     // {0}: the file's name, {1}: the detail
    NotOpen,
    OpenAlready,
    PasswordWrong,
    PasswordNotOwner,
    Languages,
    NothingSelected,
    TooFew,         // {0}: how many fields the step takes
    DoesNotFit,
    TooMany,        // {0}: how many copies a step places at most
    DetectPage,
    DetectFirst,
    DetectNoBoxes,
    DetectNone,
    DetectScanned,
    DetectOperatorsSkipped, // {0}: how many operators were read
    DetectShapesSkipped,    // {0}: how many lines and boxes were looked at
    DetectKept,             // {0}: how many places fields already hold
    // Kinds of fields, as NotButtons names them.
    KindText,
    KindCombo,
    KindList,
    KindPush,
    KindSignature,
    KindOther,
};

// The sentence in lang ("en", "ja"; English for any other) with {0}, {1} filled in.
std::string sentence(const std::string& lang, Sentence s,
                     std::initializer_list<std::string> args = {});

// The sentence for a step that failed: what failed (one of the first sentences), then
// why. reason is the module's own sentence for a refusal it explains ("This name is
// already set for a different field type."), else a technical detail, which is said as
// the document refusing the change, kept in parentheses, with what to do.
std::string failed(const std::string& lang, Sentence what, const std::string& reason,
                   bool explained);

} // namespace qfforms
