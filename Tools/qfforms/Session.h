// Steps of an authoring session carried out on a host with the forms module loaded: the
// verbs of `qfforms run` scripts (docs/scripting.md), which the editor's server also runs.
// Single-threaded: every call comes on the thread that owns the host.
#pragma once

#include "Files.h"
#include "Pd.h"

#include "qfhost/Host.h"
#include "qfhost/ModuleLoader.h"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace qfforms {

using Json = nlohmann::ordered_json;

// A step that could not be carried out. code: the result the host or the module answered
// (the text is then the module's own, when it left one); none for problems of the step
// itself.
class StepFailure : public std::runtime_error {
  public:
    StepFailure(std::optional<uint32_t> code, const std::string& text)
        : std::runtime_error(text), code_(code) {}
    const std::optional<uint32_t>& code() const { return code_; }

  private:
    std::optional<uint32_t> code_;
};

class Session {
  public:
    // host and loader (with the module loaded) must outlive the session. Relative paths of
    // steps are taken from baseDir.
    Session(qfhost::Host& host, qfhost::ModuleLoader& loader, std::filesystem::path baseDir);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // Carries out one step: verb with its arguments. Throws StepFailure, qfhost::HostError
    // or PdError.
    void run(const std::string& verb, const Json& args);
    // Opens path in a new view, for editing with the session's password (StepFailure when
    // it is no file, OpenRefused as openDocument).
    void openFile(const std::filesystem::path& path);
    // Keeps a file to be written when the session is over (an Output, Files.h); a later
    // output to the same path replaces the earlier one.
    void keep(std::filesystem::path path, std::string bytes);
    void keep(Output output);
    // The files that "save" and "render" steps kept, in the order first kept.
    const std::vector<Output>& outputs() const;
    // Whether "save" steps may write a document that holds signatures whole (see
    // planSave); without it they fail. Off at first.
    void allowBreakingSignatures(bool allowed);
    // How "save" steps write documents (planSave). SaveAs::ByFile at first.
    void setSaveAs(SaveAs asked);
    // The password that openFile and "open" steps open documents with (none at first).
    void setPassword(Password password);

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

// The document as it is now (PDDocSaveMem), or, with incremental, the file it was read from
// with the session's changes appended (PDDocSaveMemEx, PD_SAVE_INCREMENTAL); StepFailure
// when it cannot be written.
std::string saveToMemory(qfhost::Document& doc, bool incremental = false);
// The same without its encryption (PDDocSaveMemDecrypted), for the editor's page to draw:
// never for a file.
std::string viewerCopy(qfhost::Document& doc);

// The field properties of the widgets the host's selection holds, as the editor's state
// carries them: null without a selection, else {"count", "kind", "rows"} (docs/editor.md).
Json fieldPropertiesState(qfhost::Host& host);

// How deep objects and arrays of a script or of a request of the editor may nest, the
// outermost being level 1: steps are a few levels deep.
inline constexpr int kMaxScriptNesting = 64;

// Parses a script. An object that holds one key twice is refused (std::runtime_error):
// JSON readers keep only one of the values, which would silently drop the other. Nesting
// deeper than kMaxScriptNesting levels is refused with the JSON library's parse_error.
Json parseScript(const std::string& text);
// Parses the body of a request of the editor; nesting as parseScript.
Json parseRequest(const std::string& text);

// text as a JSON string, for messages.
std::string quoted(const std::string& text);
// "0x..." of value.
std::string hex(uint32_t value);

} // namespace qfforms
