#include "Run.h"

#include "Files.h"
#include "Session.h"

#include "Pd.h"
#include "Records.h"
#include "qfhost/Host.h"
#include "qfhost/ModuleLoader.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <optional>
#include <sstream>
#include <utility>

namespace qfforms {

const char* const kRunHelp =
    R"(usage: qfforms run SCRIPT.json [--in IN.pdf] [--out OUT.pdf] [--lang en|ja]
                      [--settings FILE] [--keep-going] [--break-signatures]
                      [--full-rewrite | --incremental] [--force]
                      [--password PASSWORD | --password-file FILE] [--module PATH]

Replays an authoring session through the reference host and the forms module, as the
editor drives them. SCRIPT.json is an array of steps; each step is an object with exactly
one verb. Points are PDF page space (points, y up) of the page named in the step; paths
inside the script are relative to the script's folder.

  {"new": {"pages": 2, "size": [612, 792], "rotate": [0, 90]}}
      a new document (pages default 1, size default [612, 792], rotate: one multiple of
      90 per page, optional) shown in a new view, which becomes the current view
  {"open": "form.pdf"}
      opens a PDF in a new view, which becomes the current view
  {"view": {"zoom": 1.5, "rotation": 90}}
      zoom (pixels per point) and rotation (0, 90, 180, 270) of the current view
  {"tool": "TextFieldCreate"}
      activates a tool registered by the module: TextFieldCreate, CheckBoxCreate,
      RadioGroupCreate, ComboBoxCreate, ListBoxCreate, PushButtonCreate,
      PrintButtonCreate, EmailButtonCreate, SaveButtonCreate, SubmitButtonCreate,
      DigitalSignatureFieldCreate; FormTabOrder, whose clicks on a page's widgets give
      them the tab order 1, 2, ... in the order clicked (the numbers show in a render)
  {"click": {"page": 0, "at": [72, 720], "button": "left", "modifiers": ["shift"]}}
      press and release at one point (button "left" or "right", default left; modifiers
      "shift", "control", optional); a creation tool makes a widget of its default size
      with its top-left corner there; a right click ends the tool
  {"drag": {"page": 0, "from": [72, 720], "to": [272, 698]}}
      press, move and release: a creation tool makes a widget filling the frame
  {"key": {"code": 46, "modifiers": ["shift"]}}
      a key press and the key (37..40 arrows, 46 Delete, 9 Tab) sent to the active tool
  {"set": {"property": "FieldName", "value": "Customer"}}
  {"set": {"property": "ComboOptList", "value": [["English", "en"], ["Japanese", "ja"]]}}
      sets a property of the active tool's sheet: a text, or [display, export] pairs
  {"get": {"property": "ComboOptList"}}
      prints {"property": ..., "value": ...} of the active tool's sheet on stdout
  {"select": {"page": 0, "at": [100, 710]}}
      selects the top-most widget at the point and makes the edit tool the active tool:
      drag, click and key then move, resize, nudge (arrows) and delete (46) it; a press
      beside the widget ends editing
  {"edit": "Copy"}   {"edit": "Cut"}   {"edit": "Delete"}   {"edit": "DuplicateCopy"}
      an edit command on the selected widget: Copy and Cut put its record on the system
      clipboard (kept in a file, so another run can paste it), DuplicateCopy puts it on
      the private clipboard and pastes the duplicate beside it as a field of its own
  {"paste": {"page": 0}}   {"paste": {"page": 0, "join": true}}
      pastes the widget on the system clipboard onto a page of the current document, as
      a new field or, with join, as a widget of the copied field; beside a widget it
      would cover; the pasted widget is then selected
  {"render": {"page": 0, "out": "page.svg"}}
      keeps the page as the view shows it now (selection and tool marks included) as SVG
  {"command": {"name": "Widget_Rename", "widget": {"page": 0, "index": 0},
               "newName": "Customer"}}
  {"command": {"name": "GroupRadioButtons",
               "widgets": [{"field": "CheckBox1"}, {"field": "CheckBox2", "widget": 0}]}}
      runs a widget command on the undo stack; a widget is {"page": P, "index": K}
      (annotation K of page P) or {"field": "Name", "widget": K} (widget K, default 0,
      of a field)
  {"command": {"name": "AutoTabOrderAnnot", "pages": [0, 1], "order": "rows"}}
  {"command": {"name": "MoveAnnotsFocusOrder", "page": 0, "positions": [5, 6],
               "target": 2}}
  {"command": {"name": "TabOrderAnnot", "page": 0, "from": 4, "to": 0}}
      tab order: sorts the widgets of pages (default all) in "rows" (default) or
      "columns"; moves annotations (positions in /Annots, from 0) to just before the one
      at target ("start" for the start); moves one annotation from one position to another
  {"undo": 1}   {"redo": 2}
      undoes or redoes that many commands (nothing left to undo or redo fails)
  {"save": "out.pdf"}
      keeps the current document as it is now, to be written to out.pdf at the end

Options:
  --in IN.pdf        open IN.pdf in a view before the first step
  --out OUT.pdf      write the current document after the last step to OUT.pdf
  --lang en|ja       the language of names and messages (default en)
  --settings FILE    user settings to use (default: the user's settings file, if any)
  --keep-going       report a failing step and go on; the outputs are still written
  --break-signatures save a document that holds signatures even when it is written
                     whole (--full-rewrite, or an encrypted or repaired file): its
                     signatures then no longer hold
  --full-rewrite     write every document whole (--out and "save" steps). Without it a
                     document read from a signed file, or from a file of 10 MiB or more
                     made mostly of stream data (4 KiB an object or more), is saved
                     as an incremental update: the file's bytes as they were,
                     then what the session changed (its signatures stay valid, and the
                     save costs what changed); an encrypted file, or one that had to be
                     repaired to be read, is written whole all the same
  --incremental      save every document read from a file as an incremental update,
                     whatever its size (not with --full-rewrite; an encrypted or
                     repaired file is written whole all the same)
  --force            write over outputs that are read-only (they stay read-only)
  --password PASSWORD
                     the password of encrypted documents (--in and "open" steps); a
                     document whose permissions do not allow changing its form needs
                     its owner password. Saved files keep their encryption and passwords
  --password-file FILE
                     the same, from the first line of FILE: a command line is visible
                     to the other users of the machine
  --module PATH      the forms module to load (default: $QF_FORMS_MODULE, else the one
                     built with this program)

Outputs are written only when every step succeeded, or with --keep-going; stdout names
each file written. They are written all or none: each into a new file beside it first, then
each renamed over its target, which keeps its permissions, owner and group; a symbolic link
is written through. A target that is not a regular file (a folder, a FIFO, a device) or is
read-only (without --force), a full disk or the file size limit writes none of them.

A failing step is reported on stderr as
  qfforms: step INDEX (VERB): code CODE (0xHEX): TEXT
with INDEX counted from 0 and TEXT the module's own failure text when the module failed,
or as "qfforms: step INDEX (VERB): TEXT" for problems of the script itself.

Exit status: 0 success, 1 a step failed or the run could not start or write its outputs,
2 wrong usage. See docs/scripting.md.
)";

namespace {

namespace fs = std::filesystem;
using qfhost::Document;
using qfhost::HostError;

// ---- options ---------------------------------------------------------------------------------

struct Options {
    std::string script;
    std::string in;
    std::string out;
    std::string settings;
    std::string module;
    std::string password;
    std::string passwordFile;
    std::string language = "en";
    bool keepGoing = false;
    bool breakSignatures = false;
    bool fullRewrite = false;
    bool incremental = false;
    bool force = false;
    bool help = false;
};

// Fills options from the arguments; returns the usage problem, if any.
// Everything is written: the process ends here, without taking the document apart object
// by object (a quarter of the run for a form of thousands of fields); the system takes the
// memory back. Builds that look for leaks take everything apart as usual.
int finish(int code) {
#ifndef QF_FULL_TEARDOWN
    std::cout.flush();
    std::cerr.flush();
    std::fflush(nullptr);
    std::_Exit(code);
#endif
    return code;
}

std::optional<std::string> parseOptions(const std::vector<std::string>& args, Options& o) {
    std::vector<std::string> scripts;
    if (auto problem = parseArguments(args,
                                      {{"--in", &o.in},
                                       {"--out", &o.out},
                                       {"--lang", &o.language},
                                       {"--settings", &o.settings},
                                       {"--password", &o.password},
                                       {"--password-file", &o.passwordFile},
                                       {"--module", &o.module}},
                                      {{"--help", &o.help},
                                       {"--keep-going", &o.keepGoing},
                                       {"--break-signatures", &o.breakSignatures},
                                       {"--full-rewrite", &o.fullRewrite},
                                       {"--incremental", &o.incremental},
                                       {"--force", &o.force}},
                                      scripts))
        return problem;
    if (scripts.size() > 1) return "run takes one script";
    if (!scripts.empty() && scripts[0].empty()) return "empty script name";
    const bool scriptSeen = !scripts.empty();
    if (scriptSeen) o.script = scripts[0];
    if (o.help) return std::nullopt;
    if (!scriptSeen) return "run needs a script";
    if (auto problem = passwordUsage(o.password, o.passwordFile)) return problem;
    if (auto problem = saveUsage(o.fullRewrite, o.incremental)) return problem;
    if (o.language != "en" && o.language != "ja")
        return "unknown language '" + o.language + "' (en, ja)";
    return std::nullopt;
}


int runUsageError(const std::string& message) {
    std::cerr << "qfforms: " << message << "\n" << kRunHelp;
    return 2;
}

void report(size_t step, const std::string& verb, const std::optional<uint32_t>& code,
            const std::string& message) {
    std::cerr << "qfforms: step " << step;
    if (!verb.empty()) std::cerr << " (" << verb << ")";
    std::cerr << ": ";
    if (code) std::cerr << "code " << *code << " (" << hex(*code) << "): ";
    std::cerr << message << "\n";
}

// Runs the steps; returns how many failed (stops after the first without keepGoing). Each
// step is dropped once it has run: a script of thousands of steps is not held to the end.
size_t runSteps(Session& runner, Json& steps, bool keepGoing) {
    size_t failures = 0;
    for (size_t i = 0; i < steps.size(); ++i) {
        const Json step = std::exchange(steps[i], nullptr);
        std::string verb;
        std::optional<uint32_t> code;
        std::string message;
        try {
            if (!step.is_object() || step.size() != 1)
                throw StepFailure(std::nullopt,
                                  "a step is an object with exactly one verb, such as "
                                  "{\"tool\": \"TextFieldCreate\"}");
            verb = step.begin().key();
            runner.run(verb, step.begin().value());
            continue;
        } catch (const StepFailure& e) {
            code = e.code();
            message = e.what();
        } catch (const HostError& e) {
            code = e.code();
            message = e.what();
        } catch (const PdError& e) {
            message = std::string("pdfcore: ") + e.what();
        } catch (const std::exception& e) {
            message = e.what();
        }
        report(i, verb, code, message);
        ++failures;
        if (!keepGoing) break;
    }
    return failures;
}

} // namespace

int runCommand(const std::vector<std::string>& args) {
    Options options;
    if (auto problem = parseOptions(args, options)) return runUsageError(*problem);
    if (options.help) {
        std::cout << kRunHelp;
        return 0;
    }

    Password password;
    if (auto problem = readPassword(options.password, options.passwordFile, password)) {
        std::cerr << "qfforms: " << options.passwordFile << ": " << *problem << "\n";
        return 1;
    }

    // The script, before anything is loaded.
    const fs::path scriptPath = fs::u8path(options.script);
    if (auto problem = inputProblem(options.script, kMaxScriptBytes)) {
        std::cerr << "qfforms: " << options.script << ": the script " << *problem << "\n";
        return 1;
    }
    std::ifstream in(scriptPath, std::ios::binary);
    if (!in) {
        std::cerr << "qfforms: " << options.script << ": cannot read the script\n";
        return 1;
    }
    Json steps;
    try {
        std::ostringstream buffer;
        buffer << in.rdbuf();
        steps = parseScript(std::move(buffer).str());
    } catch (const Json::parse_error& e) {
        std::cerr << "qfforms: " << options.script << ": the script is not JSON ("
                  << jsonDetail(e) << ")\n";
        return 1;
    } catch (const std::exception& e) {
        std::cerr << "qfforms: " << options.script << ": " << e.what() << "\n";
        return 1;
    }
    if (!steps.is_array()) {
        std::cerr << "qfforms: " << options.script << ": the script must be a JSON array of "
                  << "steps\n";
        return 1;
    }

    // The host first, so that the loader (and the module's objects) go before it.
    std::optional<qfhost::Host> host;
    std::optional<qfhost::ModuleLoader> loader;
    try {
        host.emplace();
        loader.emplace(&*host);
    } catch (const std::exception& e) {
        std::cerr << "qfforms: cannot start the host: " << e.what() << "\n";
        return 1;
    }
    const std::string module = modulePath(options.module);
    try {
        loader->load(module);
    } catch (const std::exception& e) {
        std::cerr << "qfforms: cannot load the forms module " << module << ": " << e.what() << "\n";
        return 1;
    }
    host->strings().setLanguage(options.language);
    std::string settings = options.settings;
    std::error_code ec;
    if (settings.empty() && fs::is_regular_file(qfhost::UserSettings::defaultPath(), ec))
        settings = qfhost::UserSettings::defaultPath();
    if (!settings.empty()) {
        if (auto problem = inputProblem(settings, kMaxRecordBytes)) {
            std::cerr << "qfforms: " << settings << ": the settings file " << *problem << "\n";
            return 1;
        }
        try {
            host->settings().load(settings);
        } catch (const std::exception& e) {
            std::cerr << "qfforms: " << settings << ": " << jsonDetail(e) << "\n";
            return 1;
        }
    }

    Session runner(*host, *loader, scriptPath.parent_path());
    runner.allowBreakingSignatures(options.breakSignatures);
    runner.setSaveAs(saveAs(options.fullRewrite, options.incremental));
    runner.setPassword(std::move(password));
    if (!options.in.empty()) {
        try {
            runner.openFile(fs::u8path(options.in));
        } catch (const std::exception& e) {
            std::cerr << "qfforms: " << options.in << ": " << e.what() << "\n";
            return 1;
        }
    }

    const size_t failures = runSteps(runner, steps, options.keepGoing);
    if (failures != 0 && !options.keepGoing) return 1;

    if (!options.out.empty()) {
        Document* doc = host->currentDocument();
        if (!doc) {
            std::cerr << "qfforms: --out: the script opened no document\n";
            return 1;
        }
        const SavePlan plan = planSave(doc->pdDoc(), saveAs(options.fullRewrite, options.incremental));
        if (plan.breaksSignatures && !options.breakSignatures) {
            std::cerr << "qfforms: " << options.out << ": " << kSignedDocument
                      << " (pass --break-signatures to save anyway)\n";
            return 1;
        }
        Output out;
        if (auto problem = stageDocument(doc->pdDoc(), fs::u8path(options.out), plan.incremental,
                                         options.force, out)) {
            std::cerr << "qfforms: " << options.out << ": " << *problem << "\n";
            if (!runner.outputs().empty()) std::cerr << "qfforms: no file was written\n";
            return 1;
        }
        runner.keep(std::move(out));
    }
    const Written written = writeOutputs(runner.outputs(), options.force);
    for (const fs::path& path : written.replaced)
        std::cout << "wrote " << utf8(fs::absolute(path, ec).lexically_normal()) << "\n";
    for (const std::string& problem : written.problems)
        std::cerr << "qfforms: " << problem << "\n";
    if (failures != 0) std::cerr << "qfforms: " << failures << " of " << steps.size() << " steps failed\n";
    return finish(failures == 0 && written.problems.empty() ? 0 : 1);
}

} // namespace qfforms
