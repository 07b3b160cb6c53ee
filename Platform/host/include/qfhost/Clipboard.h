// "KRWinServices": the host's system services, of which the forms module uses the
// clipboard ("KRClipboard"). The clipboard keeps its formats in a per-user file, so that
// what one run of a program copies another can paste; on a desktop with a clipboard
// program (wl-copy/wl-paste, xclip or xsel) its text is the desktop's clipboard text as
// well. Single-threaded like the rest of the user interface.
#pragma once

#include "qfhost/HostObjects.h"

#include <string>

namespace qfhost {

class QFHOST_API WinServices {
public:
    static constexpr const char* kName = "KRWinServices";
    static ServiceObject* create();
    static WinServices& of(ServiceObject* so);

    WinServices();

    // The clipboard (borrowed; the services keep it), made on first use as configured by
    // the environment: QF_CLIPBOARD names the file to use and keeps the desktop out;
    // otherwise the desktop's clipboard program when there is one, beside the file
    // $XDG_STATE_HOME/qf-forms/clipboard.json (else ~/.local/state/...).
    ServiceObject* clipboard();
    // Where the clipboard keeps its formats, and whether the desktop shares its text.
    const std::string& clipboardFile() const { return file_; }
    bool sharesDesktopText() const { return !desktopCopy_.empty(); }

private:
    ObjectPtr clipboard_;
    std::string file_;
    std::string desktopCopy_;   // a command that takes text on its standard input
    std::string desktopPaste_;  // a command that prints the text
};

}  // namespace qfhost
