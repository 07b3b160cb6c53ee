// What the qfforms commands share: their command-line options, passwords and opening
// documents, writing outputs safely and finding the forms module.
#pragma once

#include "qfhost/Host.h"
#include "System.h"
#include "pdfcore/pdfcore.h"

#include <cstdint>
#include <filesystem>
#include <initializer_list>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace qfforms {

// Reads args: each valued option as "--name VALUE" or "--name=VALUE" (an empty value is a
// usage problem), each flag (-h and --help count as "--help" when listed), and the rest
// as positional arguments in order. Returns the usage problem, or nothing.
// A path as the UTF-8 text that pdfcore, the host and messages take (path.string() is
// the system's narrow encoding: an ANSI code page on Windows, which loses other scripts).
inline std::string utf8(const std::filesystem::path& path) {
    const std::u8string text = path.u8string();
    return std::string(text.begin(), text.end());
}

std::optional<std::string>
parseArguments(const std::vector<std::string>& args,
               std::initializer_list<std::pair<const char*, std::string*>> valued,
               std::initializer_list<std::pair<const char*, bool*>> flags,
               std::vector<std::string>& positional);

// The password a command opens documents with: the value of --password, or the first line
// of the file --password-file names (without its line end), for a command line is visible
// to the machine's other users. Empty when neither was given.
struct Password {
    std::u16string text;
    bool given = false;
};

// The usage problem of the two options' values (an empty value is an option not given):
// both given.
std::optional<std::string> passwordUsage(const std::string& option, const std::string& file);
// Reads the password of the two options' values into out; the problem, if any, to show
// after the file's name: the file cannot be read.
std::optional<std::string> readPassword(const std::string& option, const std::string& file,
                                        Password& out);

// The problem of an open document for the program, as the line to show after its name: more
// pages or widgets than it takes (kMaxPages, kMaxWidgets), or a page whose size it cannot
// use (a box that pdfcore cannot read, not finite, or beyond the sizes PDF allows). Nothing
// when it can be shown and edited.
std::optional<std::string> documentProblem(PDDoc doc);

// What a command does with a document it opens: reads it (inspect, render, copy), or
// changes its form (run, paste, edit).
enum class Use { Read, Edit };

// A document that is not opened: its text is the line to show after the file's name.
class OpenRefused : public std::runtime_error {
  public:
    enum class Reason {
        Password,    // the file is encrypted and the password is missing or wrong
        Permissions, // its permissions do not allow changing its form
        Unusable     // the file cannot be read, or the document is more than the program takes
    };
    OpenRefused(Reason reason, const std::string& text)
        : std::runtime_error(text), reason_(reason) {}
    Reason reason() const { return reason_; }

  private:
    Reason reason_;
};

// Opens path in host (which makes it the current document) with password. Throws
// OpenRefused when the file cannot be read (inputProblem), is more than the program takes
// (documentProblem), when it is encrypted and the password is missing or wrong, or, for
// Use::Edit, when the document's permissions do not allow changing its form and the
// password was not its owner password (the document is closed again); qfhost::HostError
// when it cannot be opened otherwise.
qfhost::Document& openDocument(qfhost::Host& host, const std::string& path,
                               const Password& password, Use use);
// The line for a file that needs a password: none was given, or the one given is wrong.
std::string passwordProblem(bool given);
// The line for a document whose permissions do not allow changing its form.
extern const char* const kFormLocked;

// A document written already into a new file beside its target (PDDocStage), waiting for
// writeOutputs to commit it with the others; removed when it is not.
struct StagedDocument {
    PDStagedFile file = nullptr;
    StagedDocument() = default;
    StagedDocument(const StagedDocument&) = delete;
    StagedDocument& operator=(const StagedDocument&) = delete;
    ~StagedDocument() { PDStagedFileDiscard(file); }
};

// A file a command writes: where, and its bytes, or the file staged already.
struct Output {
    std::filesystem::path path;
    std::string bytes;
    std::shared_ptr<StagedDocument> staged;
};

// An output of doc written now into a new file beside path, so that a large document is
// never whole in memory: as an update appended to the file read when incremental (see
// planSave), a read-only target only with force. The line to show after the
// file's name when it cannot be written.
std::optional<std::string> stageDocument(PDDoc doc, const std::filesystem::path& path,
                                         bool incremental, bool force, Output& out);

// What writeOutputs did.
struct Written {
    std::vector<std::filesystem::path> replaced; // the targets written, in order
    std::vector<std::string> problems;           // lines to show, empty when all went well
};

// Writes outputs all or none through pdfcore's staged files: each into a new file beside
// its target first, and only when every one is written, each over its target. A target
// that is read-only is written only with force. A target that cannot be written stops
// before anything is replaced; a rename that fails after others went through (the folder
// changed meanwhile) stops there, and the problems say what was replaced and what not.
Written writeOutputs(const std::vector<Output>& outputs, bool force);

// The line to show after a file's name when writing it failed with r (PDFileStage,
// PDDocSaveEx, PDStagedFileCommit); forceOption names the option that writes over a
// read-only file, or is empty where there is none.
std::string writeProblem(PDResult r, const std::string& forceOption);

// The forms module to load: given (when not empty), else $QF_FORMS_MODULE, else the one
// built with this program.
std::string modulePath(const std::string& given);

} // namespace qfforms
