/* pdfcore: the PDF object-model library under the forms module.
 *
 * A C API over qpdf. Every call returns a PDResult; outputs go through pointers.
 *
 * Things to know
 * - Results. 0 is success. Every other value is one of the PD_ERR_* codes below;
 *   PDGetErrMessage() gives a fixed English text for each. A call that fails leaves
 *   its outputs as they were, except handle outputs, which are set to NULL first.
 * - Handles. Documents, pages, annotations and fields are reference-counted handles.
 *   A call that hands out a handle (an out parameter of a handle type) gives the
 *   caller one reference, to be dropped with PDHandleRelease(). PDHandleAcquire()
 *   adds one. While any reference to a handle is alive, the same PDF object in the
 *   same role always yields the same handle value, so handles may be compared and
 *   used as map keys. A field whose only widget shares its dictionary (as most files
 *   have them) has two handles, one in the field role and one in the annotation role.
 *   Every handle keeps its document alive; PDDocClose() drops the caller's reference
 *   to the document only.
 * - Threads. Reference counts are atomic, and atoms may be used from any thread.
 *   One document must be used by one thread at a time.
 * - Texts. Texts are UTF-16 (char16_t) without terminator, passed as pointer and
 *   length in units. Text getters follow the two-call pattern: pass a NULL buffer
 *   to learn the length in *outLen, then a buffer of at least that many units. A
 *   buffer that is too small gives PD_ERR_BUFFER_SMALL and *outLen set to the length
 *   needed; a larger buffer also receives a terminating zero.
 * - Absent values. A getter of a relation (a parent, a found field) answers 0 and a
 *   NULL handle when there is none. A getter of a stored value answers
 *   PD_ERR_NO_VALUE when the PDF holds none, unless it documents a default.
 * - Geometry. Coordinates are PDF user-space units (points). PDRect carries the
 *   annotation /Rect entries as stored, in the order left, top, right, bottom:
 *   left = /Rect[0], bottom = /Rect[1], right = /Rect[2], top = /Rect[3]. Stored
 *   rectangles are not normalised; rectangles passed in are normalised on write.
 * - Colours are packed 0xAARRGGBB words. Alpha 0 means "no colour" (the entry is
 *   absent); any other alpha is written as opaque DeviceRGB. Grey and CMYK colours
 *   read from files are converted to RGB.
 * - Appearances. Every widget created or changed through pdfcore gets a normal
 *   appearance stream that viewers show as it is; no call sets /NeedAppearances.
 *   Appearance streams that pdfcore did not draw are the author's and are kept where
 *   pdfcore could not draw them as well: a move keeps every stream as it is, a new size
 *   keeps those of buttons and signatures (viewers fit them into the rectangle) and the
 *   frame of text and choice fields under text drawn for the new size, a new value of a
 *   check box or radio button only sets /AS, and a change of style draws the widget anew
 *   but keeps any state of the author's that the new drawing would leave empty.
 * - Depth. Trees of the file are followed to PD_MAX_TREE_DEPTH levels: a document whose
 *   page tree or field tree is deeper does not open (PD_ERR_TOO_DEEP), and a call that
 *   would make a field tree deeper fails with that code. Loops of references are followed
 *   once.
 */
#ifndef PDFCORE_PDFCORE_H
#define PDFCORE_PDFCORE_H

#include <stddef.h>
#include <stdint.h>
#include <uchar.h>

#if defined(_WIN32)
#  if defined(PDFCORE_BUILDING)
#    define PDFCORE_API __declspec(dllexport)
#  else
#    define PDFCORE_API __declspec(dllimport)
#  endif
#else
#  define PDFCORE_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Results ------------------------------------------------------------ */

typedef int32_t PDResult;

enum {
    PD_ERR_INTERNAL = -1,        /* unexpected failure inside pdfcore or qpdf */
    PD_OK = 0,
    PD_ERR_MISSING_OBJECT = 1,   /* a required handle is NULL or its object is gone */
    PD_ERR_BAD_ARGUMENT = 2,     /* NULL output pointer, value out of its domain */
    PD_ERR_NO_VALUE = 3,         /* no such entry, or no value stored */
    PD_ERR_WRONG_HANDLE = 4,     /* a handle of another kind (a page for a field...) */
    PD_ERR_RANGE = 5,            /* index out of range */
    PD_ERR_NAME_IN_USE = 6,      /* the name belongs to another field, or a dotted
                                    name runs through a terminal field */
    PD_ERR_NOT_FOUND = 7,        /* negative answer: the item looked for is not there */
    PD_ERR_BUFFER_SMALL = 8,     /* the text buffer is shorter than the text */
    PD_ERR_IO = 9,               /* a file could not be read or written */
    PD_ERR_DAMAGED = 10,         /* the file is not a PDF or cannot be repaired */
    PD_ERR_PASSWORD = 11,        /* the file is encrypted and no password, or a wrong
                                    one, was given */
    PD_ERR_NOT_WIDGET = 12,      /* the annotation is not a widget */
    PD_ERR_FIELD_KIND = 13,      /* the call does not apply to this field's type or to
                                    a non-terminal field */
    PD_ERR_NOT_ON_PAGE = 14,     /* the annotation is not in the page's list */
    PD_ERR_ALREADY = 15,         /* already there: the annotation is in the page's list,
                                    or the widget already has a field */
    PD_ERR_NOT_KID = 16,         /* the widget is not a widget of that field */
    PD_ERR_OTHER_DOCUMENT = 17,  /* handles of two different documents were mixed */
    PD_ERR_BAD_NAME = 18,        /* a field name with an empty part ("a..b", ".a") */
    PD_ERR_UNSUPPORTED = 19,     /* valid PDF that this version does not handle */
    /* Saves (see "Writing files"). */
    PD_ERR_NOT_A_FILE = 20,      /* the target is not a regular file: a folder, FIFO,
                                    device or socket, or a link that leads to nothing */
    PD_ERR_READ_ONLY = 21,       /* the target's permissions do not allow writing it */
    PD_ERR_ACCESS = 22,          /* no permission to make or replace a file in the
                                    target's folder, or its file system is read-only */
    PD_ERR_FILE_LIMIT = 23,      /* the file would be larger than the process's or the
                                    file system's limit for files */
    PD_ERR_DISK_FULL = 24,       /* no space left on the device, or the quota is used up */
    /* 25 to 31 are reserved and never returned. */
    PD_ERR_CYCLE = 32,           /* the object graph loops (a field that is its own
                                    ancestor) */
    PD_ERR_TOO_LARGE = 33,       /* a count or size above what pdfcore holds */
    PD_ERR_OUT_OF_MEMORY = 34,
    PD_ERR_TOO_DEEP = 35         /* a page tree or a field tree nested deeper than
                                    PD_MAX_TREE_DEPTH levels */
};

/* How many levels of a page tree or a field tree pdfcore follows: a tree of pages has
 * the root's /Pages at level 1 and its pages below the last level of /Pages nodes, a
 * tree of fields its root fields at level 1. Real files use a handful. */
#define PD_MAX_TREE_DEPTH 1000

/* A fixed English text for a result code; never NULL, valid for the life of the
 * process. Unknown codes give "Unknown error". Any thread. */
PDFCORE_API const char16_t* PDGetErrMessage(PDResult result);

/* ---- Warnings ----------------------------------------------------------- */

/* Something a call carried out in a lesser way than asked, without failing: a font file
 * that cannot be read (other fonts draw the text), a character no installed font draws
 * (drawn as an empty box). text is one line of English, UTF-16, len units, valid during
 * the call only. */
typedef void (*PDWarningProc)(const char16_t* text, uint32_t len, void* clientData);

/* Sets the process's warning handler (NULL: warnings are dropped, as at start). The
 * handler is called on the thread of the call that warns, and must not call pdfcore.
 * Set it before documents are used from other threads. */
PDFCORE_API void PDSetWarningHandler(PDWarningProc proc, void* clientData);

/* ---- Handles ------------------------------------------------------------ */

typedef struct PDHandleRec* PDHandle;
typedef PDHandle PDDoc;
typedef PDHandle PDPage;
typedef PDHandle PDAnnot;   /* any annotation; a widget is an annotation */
typedef PDHandle PDField;
typedef PDHandle PDOCConfig;
typedef int32_t PDBool;     /* 0 false, 1 true */

/* Adds one reference. NULL gives PD_ERR_MISSING_OBJECT. Any thread. */
PDFCORE_API PDResult PDHandleAcquire(PDHandle handle);
/* Drops one reference; the last one frees the handle (and, for the last handle of a
 * closed document, the document). NULL is accepted and ignored (PD_OK). Any thread. */
PDFCORE_API PDResult PDHandleRelease(PDHandle handle);
/* The same as PDHandleRelease, for handles of generic objects. */
PDFCORE_API PDResult PDObjectRelease(PDHandle handle);

/* ---- Atoms -------------------------------------------------------------- */

/* An atom is the process-wide number of a PDF name (without the slash). Numbers up
 * to PD_ATOM_PREDEFINED_COUNT - 1 are a fixed, alphabetically ordered table of PDF
 * names; other names get numbers from PD_ATOM_PREDEFINED_COUNT on, in the order they
 * are first seen. Atom 0 is the empty name and never names anything. */
typedef uint32_t PDAtom;

enum {
    PD_ATOM_A = 13,
    PD_ATOM_Action = 19,
    PD_ATOM_Btn = 74,
    PD_ATOM_C = 77,
    PD_ATOM_Ch = 93,
    PD_ATOM_Filespec = 140,
    PD_ATOM_GoTo = 235,
    PD_ATOM_GoToE = 237,
    PD_ATOM_Hide = 246,
    PD_ATOM_JavaScript = 275,
    PD_ATOM_Launch = 289,
    PD_ATOM_Link = 301,
    PD_ATOM_N = 333,
    PD_ATOM_Named = 337,
    PD_ATOM_Off = 362,
    PD_ATOM_P = 380,
    PD_ATOM_Popup = 410,
    PD_ATOM_R = 429,
    PD_ATOM_ResetForm = 445,
    PD_ATOM_S = 458,
    PD_ATOM_Sig = 468,
    PD_ATOM_SubmitForm = 498,
    PD_ATOM_T = 504,
    PD_ATOM_Tx = 536,
    PD_ATOM_Type = 537,
    PD_ATOM_URI = 550,
    PD_ATOM_W = 571,
    PD_ATOM_Widget = 577
};

/* Number of predefined atoms (the table holds atoms 0 .. count-1). */
PDFCORE_API uint32_t PDAtomGetPredefinedCount(void);
/* The atom of a name (UTF-8 bytes, NUL-terminated, no leading slash), made on first
 * use. A name outside the predefined table gets a number from the count up to 2^31 - 1
 * that follows from the name alone (unless another name took it first, which is rare),
 * so the same name has the same atom in other processes too. Empty or NULL name:
 * PD_ERR_BAD_ARGUMENT. Any thread. */
PDFCORE_API PDResult PDAtomPutString(const char* name, PDAtom* outAtom);
/* The name of an atom, NUL-terminated, valid for the life of the process. An atom
 * never handed out: PD_ERR_RANGE. Any thread. */
PDFCORE_API PDResult PDAtomGetString(PDAtom atom, const char** outName);

/* ---- Documents ---------------------------------------------------------- */

/* Opens a PDF file (UTF-8 path). Damaged files are repaired when qpdf can; a file
 * that cannot be read gives PD_ERR_IO, one that is not a PDF or cannot be repaired
 * PD_ERR_DAMAGED, one that needs a password PD_ERR_PASSWORD (files encrypted with an
 * empty user password open), one encrypted otherwise than with passwords (certificates,
 * an unknown security handler) PD_ERR_UNSUPPORTED, one whose page tree or field tree is
 * nested deeper than PD_MAX_TREE_DEPTH levels PD_ERR_TOO_DEEP. The same as
 * PDDocOpenWithPassword with no password. The whole file is read: it may be overwritten
 * while the document is open. Any thread; the document is then used by one thread at a
 * time. */
PDFCORE_API PDResult PDDocOpen(const char* path, PDDoc* outDoc);
/* The same from bytes in memory; the bytes are copied. */
PDFCORE_API PDResult PDDocOpenMem(const void* data, size_t size, PDDoc* outDoc);
/* Opens an encrypted PDF file with its user or its owner password (an unencrypted file
 * opens whatever the password). The password is text, as the person typed it: UTF-16,
 * passwordLen units, no terminator; NULL with 0 (or an empty text) is the empty password.
 * PDF passwords are bytes, which each security handler took from the text its own way:
 * pdfcore tries the text's UTF-8 form first (AES-256 files use it), then the text in
 * PDFDocEncoding, Windows-1252 and Mac Roman (which the RC4 and AES-128 handlers took
 * their bytes from). A password that none of them matches: PD_ERR_PASSWORD, as for a
 * missing one. NULL password with passwordLen > 0, NULL path or outDoc:
 * PD_ERR_BAD_ARGUMENT. Other failures as PDDocOpen. pdfcore keeps no copy of the password;
 * PDDocOpenedWithOwnerPassword tells which of the two it was. A save writes the file
 * with the same encryption (see PDDocSave). */
PDFCORE_API PDResult PDDocOpenWithPassword(const char* path, const char16_t* password,
                                           uint32_t passwordLen, PDDoc* outDoc);
/* The same from bytes in memory; the bytes are copied. NULL data: PD_ERR_BAD_ARGUMENT. */
PDFCORE_API PDResult PDDocOpenMemWithPassword(const void* data, size_t size,
                                              const char16_t* password, uint32_t passwordLen,
                                              PDDoc* outDoc);
/* A new document of pageCount (1..100000) empty pages of width x height points. */
PDFCORE_API PDResult PDDocCreate(uint32_t pageCount, float width, float height,
                                 PDDoc* outDoc);
/* Writes the document to path (UTF-8) as PDFileStage and PDStagedFileCommit write a
 * file: the target is replaced whole or not at all, and keeps its permissions; a target
 * that is read-only is refused (PD_ERR_READ_ONLY), one that is not a regular file too
 * (PD_ERR_NOT_A_FILE), before anything is written; a failed save leaves the target as it
 * was and no file of its own behind. The same as PDDocSaveEx with no flags. The document
 * stays open and unchanged. An encrypted document is written encrypted as it was read:
 * the same security handler, revision, method (RC4 or AES), key length, permissions and
 * whether metadata is encrypted, and the same user and owner passwords, whichever of
 * them opened it; only the second word of the file identifier is new, so such files are
 * not the same byte for byte from one save to the next (AES makes them differ anyway). A
 * field (made here or read from the file) whose last widget PDFieldRemoveWidget took out
 * since the document was opened, and that holds no widget when the document is written,
 * is left out of the file (as after undoing a widget's creation or deletion), and so is
 * every parent left without kids by that, up the tree; in memory they stay, and are
 * written again once they hold a widget. Fields that never lost a widget this way (a
 * file's field that had none to begin with, a made field that never got one) are always
 * written. Every name is written so that a reader reads back its bytes as they are: a
 * '#' inside a name (an on state "A#1", or "#e5#a5" as some writers leave escaped UTF-8)
 * as #23. The same holds for PDDocSaveMem. */
PDFCORE_API PDResult PDDocSave(PDDoc doc, const char* path);
/* PDDocSave with PD_SAVE_* flags (see "Writing files"); unknown flags:
 * PD_ERR_BAD_ARGUMENT. With PD_SAVE_INCREMENTAL the target receives the bytes the document
 * was opened from, unchanged, followed by an incremental update: the objects this session
 * changed or made, and a cross-reference section whose /Prev leads to the file's own. The
 * signatures of the file stay valid over the bytes they signed. Unchanged, the file is
 * written as it was read.
 * - When the target is the file the document was opened from (PDDocOpen), as it was read
 *   or as this document's last such save left it (the same file, size, time of its last
 *   change and last 4 KiB), and this process may write it, the update is appended to it in
 *   place: the save costs what changed since that last save, not the size of the file. A
 *   failed write cuts the file back to its size, so that it is as it was; a process killed
 *   or a machine that stops while the update is written leaves the file with part of an
 *   update after its bytes (docs: reliability). Hard links stay; the file keeps its
 *   permissions, owner and identity.
 * - Any other target (another file, or the file changed by someone else since) is replaced
 *   whole with the bytes read and the update, as PDDocSave replaces it.
 * A document that cannot take an update (PDDocCanSaveIncrementally), or one in which qpdf
 * finds something to repair while the update is made, or whose update qpdf does not read
 * back as it was meant, is written whole, as without the flag. */
PDFCORE_API PDResult PDDocSaveEx(PDDoc doc, const char* path, uint32_t flags);
/* Whether PD_SAVE_INCREMENTAL can append to the document: false for one made with
 * PDDocCreate, one that is encrypted (its appended objects would need the file's key) and
 * one whose file qpdf had to repair while reading it (its cross-reference section cannot be
 * trusted to lead to the objects). */
PDFCORE_API PDResult PDDocCanSaveIncrementally(PDDoc doc, PDBool* outCan);
/* Writes the document into a buffer allocated with malloc; the caller frees it with
 * PDFreeBuffer(). */
PDFCORE_API PDResult PDDocSaveMem(PDDoc doc, void** outData, size_t* outSize);
/* PDDocSaveMem with PD_SAVE_INCREMENTAL (as PDDocSaveEx writes it) or 0; other flags:
 * PD_ERR_BAD_ARGUMENT. */
PDFCORE_API PDResult PDDocSaveMemEx(PDDoc doc, uint32_t flags, void** outData, size_t* outSize);
/* The size in bytes of the file or memory the document was opened from, and the number of
 * objects its cross-reference sections list; 0 and 0 for one made with PDDocCreate. Either
 * out pointer may be NULL. */
PDFCORE_API PDResult PDDocGetFileSize(PDDoc doc, uint64_t* outSize, uint64_t* outObjects);
/* PDDocSaveMem without the document's encryption: for a viewer of the same session that
 * has no password (the editor's page), never for a file that is kept, which PDDocSave and
 * PDDocSaveMem write encrypted. An unencrypted document gives what PDDocSaveMem gives.
 * pdfcore does not check the permissions: that is the caller's business, as for every
 * other call. */
PDFCORE_API PDResult PDDocSaveMemDecrypted(PDDoc doc, void** outData, size_t* outSize);
PDFCORE_API void PDFreeBuffer(void* data);
/* Drops the caller's reference to the document (the same as PDHandleRelease). */
PDFCORE_API PDResult PDDocClose(PDDoc doc);
PDFCORE_API PDResult PDDocGetNumPages(PDDoc doc, uint32_t* outCount);
/* The page at index (0-based). */
PDFCORE_API PDResult PDDocGetPage(PDDoc doc, uint32_t index, PDPage* outPage);
/* Frees the objects this session made that the document and the live handles no longer
 * lead to (deleted widgets and emptied fields whose commands are gone, their drawings);
 * outFreed (may be NULL) receives how many. pdfcore also does this by itself, now and
 * then, when it makes fields and widgets. The written file is the same either way. */
PDFCORE_API PDResult PDDocCollectGarbage(PDDoc doc, uint32_t* outFreed);
/* True when a signature field of the document holds a signature (/V). */
PDFCORE_API PDResult PDDocIsSigned(PDDoc doc, PDBool* outSigned);

/* What an encrypted document allows a reader who opened it with the user password (its
 * /P entry, read as the handler's revision defines it). pdfcore enforces none of it: the
 * caller decides, and usually lets one who gave the owner password do anything. An
 * unencrypted document allows everything (PD_PERM_ALL). */
enum {
    PD_PERM_PRINT = 0x01,         /* print, at least at a low resolution */
    PD_PERM_PRINT_HIGH = 0x02,    /* print faithfully */
    PD_PERM_COPY = 0x04,          /* copy or extract text and graphics */
    PD_PERM_ACCESSIBILITY = 0x08, /* extract text and graphics for accessibility */
    PD_PERM_ASSEMBLE = 0x10,      /* insert, rotate and delete pages, make bookmarks */
    PD_PERM_FILL_FORM = 0x20,     /* fill in the form's fields and sign them */
    PD_PERM_ANNOTATE = 0x40,      /* add and change annotations, fill in fields */
    PD_PERM_MODIFY = 0x80,        /* change the document otherwise */
    /* Making, moving, renaming and deleting form fields and their widgets takes both. */
    PD_PERM_EDIT_FORM = PD_PERM_ANNOTATE | PD_PERM_MODIFY,
    PD_PERM_ALL = 0xFF
};
/* Whether the document was read encrypted (and is written so). */
PDFCORE_API PDResult PDDocIsEncrypted(PDDoc doc, PDBool* outEncrypted);
/* Whether the password that opened the document was its owner password (an empty one
 * counts when it is the owner password). 0 for an unencrypted document. */
PDFCORE_API PDResult PDDocOpenedWithOwnerPassword(PDDoc doc, PDBool* outOwner);
/* The PD_PERM_* bits the document's permissions grant, whichever password opened it. */
PDFCORE_API PDResult PDDocGetPermissions(PDDoc doc, uint32_t* outPermissions);
/* The document's default optional-content configuration (/OCProperties /D); NULL
 * with PD_OK when the document has no optional content. */
PDFCORE_API PDResult PDDocGetOCConfig(PDDoc doc, PDOCConfig* outConfig);
/* The document that a handle of any kind belongs to (one reference). */
PDFCORE_API PDResult PDHandleGetDoc(PDHandle handle, PDDoc* outDoc);

/* Annotation change notifications. PDDocNotifyAnnotChanged() calls every listener of
 * the document, in the order they were added, on the calling thread. kind: 0
 * inserted or reordered, 1 removed, 2 radio buttons regrouped, 3 field name,
 * membership, choice or options changed; other values are passed on as they are.
 * annot may be NULL. Listeners must not add or remove listeners while called. */
typedef void (*PDAnnotChangedProc)(void* clientData, PDDoc doc, int32_t kind,
                                   uint32_t pageIndex, PDAnnot annot);
PDFCORE_API PDResult PDDocNotifyAnnotChanged(PDDoc doc, int32_t kind, uint32_t pageIndex,
                                             PDAnnot annot);
PDFCORE_API PDResult PDDocAddAnnotChangedListener(PDDoc doc, PDAnnotChangedProc proc,
                                                  void* clientData, uint32_t* outCookie);
/* Unknown cookie: PD_ERR_NOT_FOUND. */
PDFCORE_API PDResult PDDocRemoveAnnotChangedListener(PDDoc doc, uint32_t cookie);

/* ---- Writing files ------------------------------------------------------ */

/* A file is written in two steps: PDFileStage writes the bytes into a new file beside the
 * target, PDStagedFileCommit puts that file in the target's place with one rename. The
 * target is therefore at every moment the old file or the new one, whole; a program that
 * writes several files stages them all before it commits any, and commits none when one
 * cannot be staged.
 *
 * - The target (a path in UTF-8) is looked at, never opened: a folder, FIFO, device or
 *   socket there gives PD_ERR_NOT_A_FILE at once, without blocking. A symbolic link is
 *   written through: the file it leads to is replaced and the link stays; a link that
 *   leads to nothing is refused (PD_ERR_NOT_A_FILE).
 * - A target whose permissions do not allow this process to write it, or that no one may
 *   write (no write bit: root too is refused), gives PD_ERR_READ_ONLY unless the flags
 *   hold PD_SAVE_FORCE; the file written then keeps those permissions.
 * - The new file takes the target's permission bits, and its owner and group as far as
 *   this process may set them (root: both; others: a group of their own); a new target is
 *   made as any new file (the umask). Access lists and extended attributes are not carried
 *   over. A target with other hard links is replaced under this name only.
 * - The new file is flushed to the disk before the rename, and the folder after it.
 * - The temporary file is named ".NAME.qfforms-PID-XXXXXXXX.tmp" (NAME the target's name,
 *   shortened to 160 bytes; PID the writing process; 8 hexadecimal digits) and is removed
 *   on every failure. A process killed while it wrote leaves its file; a later stage into
 *   the same folder removes the files of that pattern that belong to this user, were last
 *   changed more than ten minutes ago and whose process no longer runs, and nothing else.
 * - Failures: PD_ERR_ACCESS (no permission to make or replace a file in the folder, or a
 *   read-only file system), PD_ERR_FILE_LIMIT (the file size limit of the process, or of
 *   the file system, EFBIG), PD_ERR_DISK_FULL, PD_ERR_IO (a missing folder, any other
 *   failure). A process past its file size limit gets SIGXFSZ, which ends it unless it is
 *   ignored: programs that want PD_ERR_FILE_LIMIT instead ignore it.
 *
 * Any thread; one staged file is used by one thread at a time. */

/* Flags of PDDocSaveEx and PDFileStage. */
enum {
    PD_SAVE_FORCE = 1,       /* write over a target whose permissions do not allow writing it */
    PD_SAVE_INCREMENTAL = 2  /* PDDocSaveEx, PDDocStage: append the changes to the file's bytes */
};

typedef struct PDStagedFileRec* PDStagedFile;

/* Writes size bytes of data into a new file beside path, after the checks above. On
 * success *outFile receives the staged file, to be committed or discarded; on failure it
 * is NULL, and nothing is left behind. NULL path or outFile, an empty path, NULL data with
 * size > 0 or unknown flags: PD_ERR_BAD_ARGUMENT. */
PDFCORE_API PDResult PDFileStage(const char* path, const void* data, size_t size,
                                 uint32_t flags, PDStagedFile* outFile);
/* Renames the staged file over its target and flushes the folder (or appends a staged
 * update, PDDocStage). On failure (the target or its folder changed since: PD_ERR_ACCESS,
 * PD_ERR_IO; an append that does not fit: PD_ERR_DISK_FULL, PD_ERR_FILE_LIMIT) the target
 * is as it was and the staged file is removed. Either way file is freed. NULL:
 * PD_ERR_MISSING_OBJECT. */
PDFCORE_API PDResult PDStagedFileCommit(PDStagedFile file);
/* Removes the staged file without touching its target, and frees file. NULL: nothing. */
PDFCORE_API void PDStagedFileDiscard(PDStagedFile file);
/* Writes the document into a new file beside path as PDDocSaveEx writes it (flags
 * PD_SAVE_FORCE and PD_SAVE_INCREMENTAL), to be committed or discarded as PDFileStage's:
 * the file goes to the disk as qpdf writes it, never whole in memory. An update that
 * PDDocSaveEx would append in place is made and held instead, and appended at the commit,
 * which checks again that the file is as the document knew it (PD_ERR_IO when not, and
 * nothing is written); discarding it writes nothing. On failure *outFile
 * is NULL and nothing is left behind. NULL outFile or unknown flags: PD_ERR_BAD_ARGUMENT;
 * path and the document as for PDDocSaveEx. The calling thread owns the document. */
PDFCORE_API PDResult PDDocStage(PDDoc doc, const char* path, uint32_t flags,
                                PDStagedFile* outFile);

/* ---- Pages -------------------------------------------------------------- */

typedef struct PDRect {
    float left;    /* /Rect[0] */
    float top;     /* /Rect[3] */
    float right;   /* /Rect[2] */
    float bottom;  /* /Rect[1] */
} PDRect;

enum { PD_BOX_MEDIA = 0, PD_BOX_CROP = 1 };

PDFCORE_API PDResult PDPageGetIndex(PDPage page, uint32_t* outIndex);
/* The page's media or crop box (inherited from the page tree; the crop box
 * defaults to the media box), in PDRect order. */
PDFCORE_API PDResult PDPageGetBox(PDPage page, int32_t which, PDRect* outBox);
/* /Rotate (inherited), normalised to 0, 90, 180 or 270. */
PDFCORE_API PDResult PDPageGetRotate(PDPage page, int32_t* outDegrees);
/* Sets the page's own /Rotate: any multiple of 90, negative ones too, stored modulo
 * 360; other values: PD_ERR_BAD_ARGUMENT. */
PDFCORE_API PDResult PDPageSetRotate(PDPage page, int32_t degrees);
PDFCORE_API PDResult PDPageGetNumAnnots(PDPage page, uint32_t* outCount);
/* The rectangles of the page's annotations from position first on, in the order of its
 * list, as PDAnnotGetRect reads them, in one call and without a handle for each: *outCount
 * receives the page's number of annotations, and outRects (NULL with capacity 0 to learn
 * the count) the rectangles of positions first to first + capacity - 1, or to the last.
 * A caller that looks for the top-most annotation reads windows from the end. An
 * annotation without a readable /Rect gives a rectangle of zeros. first past the count:
 * PD_ERR_BAD_ARGUMENT. */
PDFCORE_API PDResult PDPageGetAnnotRects(PDPage page, uint32_t first, PDRect* outRects,
                                         uint32_t capacity, uint32_t* outCount);
PDFCORE_API PDResult PDPageGetAnnot(PDPage page, uint32_t index, PDAnnot* outAnnot);
/* Position of annot in the page's /Annots; PD_ERR_NOT_FOUND when it is not there. */
PDFCORE_API PDResult PDPageGetAnnotIndex(PDPage page, PDAnnot annot, uint32_t* outIndex);
/* Inserts annot into /Annots before position index (index == count appends) and
 * sets its /P. Already in the list: PD_ERR_ALREADY; index > count: PD_ERR_RANGE. */
PDFCORE_API PDResult PDPageAddAnnot(PDPage page, uint32_t index, PDAnnot annot);
/* Takes annot out of /Annots; the annotation object and its field membership stay.
 * Not in the list: PD_ERR_NOT_ON_PAGE. */
PDFCORE_API PDResult PDPageRemoveAnnot(PDPage page, PDAnnot annot);
/* The page whose /Annots lists annot: the page its /P names when that is so (a look at
 * one page), else the first such page in page order. On no page: PD_ERR_NOT_ON_PAGE. */
PDFCORE_API PDResult PDAnnotGetPage(PDAnnot annot, PDPage* outPage);
/* The page's tab order (/Tabs) as an atom: R rows, C columns, S structure, A the
 * order of /Annots, W widgets first in the order of /Annots, or any other name the file
 * holds. Absent (or not a name): PD_ERR_NO_VALUE. */
PDFCORE_API PDResult PDPageGetTabOrder(PDPage page, PDAtom* outOrder);
/* Sets the page's own /Tabs; atom 0 removes it. An atom without a name:
 * PD_ERR_BAD_ARGUMENT. */
PDFCORE_API PDResult PDPageSetTabOrder(PDPage page, PDAtom order);

/* ---- Page graphics ------------------------------------------------------ */

/* What a page draws, read from its content streams and the form XObjects they draw: the
 * shapes that paths paint and the text that text operators show, each with the current
 * transformation applied, so in the page's default user space (points, y up, before
 * /Rotate), the space of annotation rectangles. Clipping, colours of patterns, shadings
 * and marked content are not followed. */

enum {
    PD_GRAPHIC_LINE = 1,   /* a straight segment from (x0, y0) to (x1, y1) */
    PD_GRAPHIC_RECT = 2,   /* a rectangle (re, or a closed subpath of four axis-parallel
                            * segments); x0, y0, x1, y1: left, bottom, right, top */
    PD_GRAPHIC_CURVE = 3,  /* a subpath holding curves; its bounding box as for RECT */
    PD_GRAPHIC_TEXT = 4,   /* a run of text one operator shows; bounding box as for RECT,
                            * from the baseline's descent to the ascent of its font */
    PD_GRAPHIC_IMAGE = 5   /* an image XObject or inline image; bounding box as RECT */
};

/* How a shape is painted (flags of PDGraphic), and whether its subpath is closed (by h, or
 * ending where it began: a circle, not an arc). */
enum { PD_GRAPHIC_STROKED = 0x1, PD_GRAPHIC_FILLED = 0x2, PD_GRAPHIC_CLOSED = 0x4 };

typedef struct PDGraphic {
    int32_t kind;        /* PD_GRAPHIC_* */
    uint32_t flags;      /* PD_GRAPHIC_STROKED, _FILLED, _CLOSED (shapes only) */
    float x0, y0, x1, y1;
    float lineWidth;     /* stroke width in default user space (shapes) */
    float fontSize;      /* height of the text in default user space (text) */
    uint32_t strokeColor; /* 0xAARRGGBB, device colours converted to RGB; alpha 0 for */
    uint32_t fillColor;   /* colours of other spaces (patterns, separations...) */
    const char16_t* text; /* the run's Unicode text (text only, else NULL), text units */
    uint32_t textLen;
} PDGraphic;

/* Called once per graphic in drawing order. The graphic and its text live only for the
 * call. Answer nonzero to stop reading: PDPageReadGraphics then returns PD_OK. */
typedef int32_t (*PDGraphicProc)(const PDGraphic* graphic, void* clientData);

typedef struct PDGraphicsSummary {
    uint32_t operators;       /* content operators read, form XObjects' included */
    uint32_t graphics;        /* graphics handed to the callback */
    uint32_t skippedOperators; /* 1 when the operator cap ended reading before the end
                               * of the page's content (the rest was not read), else 0 */
    uint32_t skippedXObjects; /* form XObjects not read: nested past 12 levels, drawn
                               * inside themselves, or damaged */
    uint32_t undecodedText;   /* text runs whose font maps no code to Unicode (type 3
                               * and CID fonts without /ToUnicode): handed out with
                               * their bounding box and an empty text */
} PDGraphicsSummary;

/* Reads the graphics of page, calling proc for each. At most maxOperators content
 * operators are read (0: no cap); reading stops there and the summary says so. Text is
 * decoded through the font's /ToUnicode, else for simple fonts as WinAnsi bytes with the
 * glyph names of /Differences that spell letters, digits and common signs (uniXXXX too),
 * ZapfDingbats' squares as U+25A0 and U+274F to U+2752, and for CID fonts of UCS-2
 * encodings as the codes themselves. summary may be NULL. NULL page or proc: PD_ERR_MISSING_OBJECT,
 * PD_ERR_BAD_ARGUMENT; content qpdf cannot parse at all: PD_ERR_DAMAGED (the graphics
 * read before it have been handed out; summary untouched). The document is not changed.
 * Thread: the document's. */
PDFCORE_API PDResult PDPageReadGraphics(PDPage page, uint32_t maxOperators,
                                        PDGraphicProc proc, void* clientData,
                                        PDGraphicsSummary* outSummary);

/* ---- Annotations -------------------------------------------------------- */

/* Annotation flags (/F). */
enum {
    PD_ANNOT_INVISIBLE = 0x1,
    PD_ANNOT_HIDDEN = 0x2,
    PD_ANNOT_PRINT = 0x4,
    PD_ANNOT_NOVIEW = 0x20,
    PD_ANNOT_LOCKED = 0x80
};

/* The /Subtype atom. */
PDFCORE_API PDResult PDAnnotGetSubtype(PDAnnot annot, PDAtom* outSubtype);
PDFCORE_API PDResult PDAnnotGetRect(PDAnnot annot, PDRect* outRect);
/* Sets /Rect (normalised). A widget of a new size gets its appearance drawn for it (see
 * Appearances above); one of the same size keeps its appearance streams as they are. */
PDFCORE_API PDResult PDAnnotSetRect(PDAnnot annot, const PDRect* rect);
/* /F; 0 when absent. */
PDFCORE_API PDResult PDAnnotGetFlags(PDAnnot annot, uint32_t* outFlags);
PDFCORE_API PDResult PDAnnotSetFlags(PDAnnot annot, uint32_t flags);
/* False when the Hidden or NoView flag is set, true otherwise. */
PDFCORE_API PDResult PDAnnotGetVisible(PDAnnot annot, PDBool* outVisible);
/* True for the markup subtypes (Text, FreeText, Line, Square, Circle, Polygon,
 * PolyLine, Highlight, Underline, Squiggly, StrikeOut, Stamp, Caret, Ink,
 * FileAttachment, Sound, Redact). */
PDFCORE_API PDResult PDAnnotIsMarkupAnnot(PDAnnot annot, PDBool* outMarkup);
/* The annotation this one replies to (/IRT), or NULL. */
PDFCORE_API PDResult PDMarkupAnnotGetInReplyTo(PDAnnot annot, PDAnnot* outParent);
/* Makes annot (a markup annotation, else PD_ERR_BAD_ARGUMENT) a reply to parent; NULL
 * removes /IRT. A parent that is annot itself or (through its own /IRT chain) a reply to
 * it: PD_ERR_CYCLE. */
PDFCORE_API PDResult PDMarkupAnnotSetInReplyTo(PDAnnot annot, PDAnnot parent);
/* A new annotation of subtype with rect (normalised) and the Print flag, on no page:
 * PDPageAddAnnot puts it on one. Only Text (a note) is made; other subtypes:
 * PD_ERR_UNSUPPORTED (widgets come from the widget creators). A NULL or non-finite rect:
 * PD_ERR_BAD_ARGUMENT. */
PDFCORE_API PDResult PDDocCreateAnnot(PDDoc doc, PDAtom subtype, const PDRect* rect,
                                      PDAnnot* outAnnot);
/* /AS as an atom; PD_ERR_NO_VALUE when absent. */
PDFCORE_API PDResult PDAnnotGetAppearanceState(PDAnnot annot, PDAtom* outState);
/* Sets /AS; atom 0 removes it. */
PDFCORE_API PDResult PDAnnotSetAppearanceState(PDAnnot annot, PDAtom state);
/* Whether the annotation shows under the configuration: false when its /OC names
 * an optional-content group (or a membership dictionary) that the configuration
 * turns off. A NULL configuration shows everything. */
PDFCORE_API PDResult PDOCConfigIsAnnotVisible(PDOCConfig config, PDAnnot annot,
                                              PDBool* outVisible);

/* ---- Fields ------------------------------------------------------------- */

/* Field flags (/Ff). pdfcore draws by ReadOnly, Multiline, Password, Comb (with /MaxLen,
 * without Multiline and Password), Radio, PushButton and Combo; the others are for the
 * reader and are kept as they are set. */
enum {
    PD_FIELD_READONLY = 0x1,
    PD_FIELD_REQUIRED = 0x2,
    PD_FIELD_NO_EXPORT = 0x4,
    PD_FIELD_MULTILINE = 0x1000,
    PD_FIELD_PASSWORD = 0x2000,
    PD_FIELD_NO_TOGGLE_TO_OFF = 0x4000,
    PD_FIELD_RADIO = 0x8000,
    PD_FIELD_PUSHBUTTON = 0x10000,
    PD_FIELD_COMBO = 0x20000,
    PD_FIELD_EDIT = 0x40000,
    PD_FIELD_SORT = 0x80000,
    PD_FIELD_MULTISELECT = 0x200000,
    PD_FIELD_DO_NOT_SPELL_CHECK = 0x400000,
    PD_FIELD_DO_NOT_SCROLL = 0x800000,
    PD_FIELD_COMB = 0x1000000,
    PD_FIELD_RADIOS_IN_UNISON = 0x2000000,
    PD_FIELD_COMMIT_ON_SEL_CHANGE = 0x4000000
};

/* Finds or creates the field of a fully qualified name (dots separate the parts;
 * missing parents are made as non-terminal fields) and gives it /FT type and /Ff
 * flags. type: PD_ATOM_Btn, _Ch, _Tx or _Sig, else PD_ERR_BAD_ARGUMENT. A name
 * already used, or one running through a terminal field: PD_ERR_NAME_IN_USE. A name of
 * more than PD_MAX_TREE_DEPTH parts: PD_ERR_TOO_DEEP. */
PDFCORE_API PDResult PDDocCreateField(PDDoc doc, const char16_t* name, uint32_t nameLen,
                                      PDAtom type, uint32_t flags, PDField* outField);
/* Typed variants. name may be NULL (nameLen 0): pdfcore then gives the field a
 * fresh name of its own that no field of the document bears. */
PDFCORE_API PDResult PDCreateButtonField(PDDoc doc, const char16_t* name, uint32_t nameLen,
                                         uint32_t flags, PDField* outField);
PDFCORE_API PDResult PDCreateTextField(PDDoc doc, const char16_t* name, uint32_t nameLen,
                                       uint32_t flags, PDField* outField);
PDFCORE_API PDResult PDCreateChoiceField(PDDoc doc, const char16_t* name, uint32_t nameLen,
                                         uint32_t flags, PDField* outField);
/* A signature field always gets a fresh name of pdfcore's own. */
PDFCORE_API PDResult PDCreateSignField(PDDoc doc, uint32_t flags, PDField* outField);
/* The field of a fully qualified name, terminal or not, or NULL. Uses an index of
 * the form's names, not a walk of the form. */
PDFCORE_API PDResult PDDocFindField(PDDoc doc, const char16_t* name, uint32_t nameLen,
                                    PDField* outField);
/* Gives field the fully qualified name; a dotted name moves it under that parent
 * (made when missing). The field keeps its handle, kids, value and widgets. Another
 * field of that name: PD_ERR_NAME_IN_USE. A move that would put a field below
 * PD_MAX_TREE_DEPTH levels (the field's kids counted): PD_ERR_TOO_DEEP, nothing changed. */
PDFCORE_API PDResult PDDocRenameField(PDDoc doc, PDField field, const char16_t* name,
                                      uint32_t nameLen);
/* Terminal fields of the form in tree order (the order of /Fields, depth first). */
PDFCORE_API PDResult PDDocGetNumFields(PDDoc doc, uint32_t* outCount);
PDFCORE_API PDResult PDDocGetField(PDDoc doc, uint32_t index, PDField* outField);
/* How many fields this session has made with PDDocCreateField and its typed variants, in
 * the order made: a count taken before some calls and one after them bound what those calls
 * made, without a walk of the form. Counted from 0 at PDDocOpen or PDDocCreate, and never
 * smaller later. */
PDFCORE_API PDResult PDDocGetNumFieldsMade(PDDoc doc, uint32_t* outCount);
/* The index-th field made (0-based, below PDDocGetNumFieldsMade, else PD_ERR_RANGE), or a
 * NULL handle when a collection of garbage has freed it since (PDDocCollectGarbage). */
PDFCORE_API PDResult PDDocGetFieldMade(PDDoc doc, uint32_t index, PDField* outField);

/* The partial name (/T); the fully qualified name. */
PDFCORE_API PDResult PDFieldGetName(PDField field, char16_t* buf, uint32_t bufLen,
                                    uint32_t* outLen);
PDFCORE_API PDResult PDFieldGetFullName(PDField field, char16_t* buf, uint32_t bufLen,
                                        uint32_t* outLen);
/* /FT (inherited) as an atom; PD_ERR_NO_VALUE for a field without a type. */
PDFCORE_API PDResult PDFieldGetType(PDField field, PDAtom* outType);
/* /Ff (inherited); 0 when absent. */
PDFCORE_API PDResult PDFieldGetFlags(PDField field, uint32_t* outFlags);
PDFCORE_API PDResult PDFieldSetFlags(PDField field, uint32_t flags);
/* /TU, the name shown to the user (tooltip). An empty text removes it. */
PDFCORE_API PDResult PDFieldGetUIName(PDField field, char16_t* buf, uint32_t bufLen,
                                      uint32_t* outLen);
PDFCORE_API PDResult PDFieldSetUIName(PDField field, const char16_t* text, uint32_t len);
/* /V and /DV (inherited) as text: a button's value is its state name ("Off" or an
 * on-state), a multi-select choice gives its first value. PD_ERR_NO_VALUE when absent.
 * Setting /V regenerates the appearances of all widgets of the field; for buttons it
 * also sets each widget's /AS to the value when that is its on-state, else to Off.
 * A button's value is written as the name of the state of the field's widgets whose text
 * it is, with that name's bytes (a state named in Latin-1 stays so), else as a name in
 * UTF-8. An empty text removes the entry. */
PDFCORE_API PDResult PDFieldGetValue(PDField field, char16_t* buf, uint32_t bufLen,
                                     uint32_t* outLen);
PDFCORE_API PDResult PDFieldSetValue(PDField field, const char16_t* text, uint32_t len);
PDFCORE_API PDResult PDFieldGetDefaultValue(PDField field, char16_t* buf, uint32_t bufLen,
                                            uint32_t* outLen);
PDFCORE_API PDResult PDFieldSetDefaultValue(PDField field, const char16_t* text,
                                            uint32_t len);
/* Widgets of the field: its widget kids, or the field itself when it shares its
 * dictionary with its one widget. */
PDFCORE_API PDResult PDFieldGetNumWidgets(PDField field, uint32_t* outCount);
PDFCORE_API PDResult PDFieldGetWidget(PDField field, uint32_t index, PDAnnot* outWidget);
/* The position of widget among the field's widgets; PD_ERR_NOT_KID when it is not one. */
PDFCORE_API PDResult PDFieldGetWidgetIndex(PDField field, PDAnnot widget,
                                           uint32_t* outIndex);
/* Makes widget a widget of field (a terminal field, or one of a damaged tree that holds
 * widgets beside field kids; else PD_ERR_FIELD_KIND). The
 * widget must have no field (PD_ERR_ALREADY). A field that shares its dictionary
 * with its one widget is split first; both keep their handles. The widget's
 * appearance shows the field's value from then on. */
PDFCORE_API PDResult PDFieldAppendWidget(PDField field, PDAnnot widget);
/* The same, with widget put before the one at position index among the field's widgets;
 * index == count appends, a larger one: PD_ERR_RANGE. Undoing a removal with the index
 * that PDFieldGetWidgetIndex gave before puts the widget back where it was. */
PDFCORE_API PDResult PDFieldInsertWidget(PDField field, uint32_t index, PDAnnot widget);
/* Takes widget out of field (PD_ERR_NOT_KID when it is not one of its widgets). The
 * widget stays on its page without a field (a field type repeated on the widget, /FT,
 * is dropped with its membership) and keeps as its own the text style and alignment
 * (/DA, /Q) that it had from the field; the field stays in the form, also when
 * it has no widget left (it is then not written, see PDDocSave). */
PDFCORE_API PDResult PDFieldRemoveWidget(PDField field, PDAnnot widget);
/* Draws the appearances of all widgets of the field again after its entries changed
 * (options, flags); an author's frame of a text or choice field stays under the text. */
PDFCORE_API PDResult PDFieldUpdateWidgets(PDField field);

/* A saved state of a terminal field and its widgets: every entry of their dictionaries
 * (and of the /MK, /BS and /AP dictionaries they hold by reference, and of the form's
 * /AcroForm and /DR, where drawings add fonts), and the appearance streams pdfcore drew
 * for each widget, with their bytes. PDFieldRestoreState puts all of
 * it back, whatever calls changed the field and its widgets since: flags, values, default
 * values, tooltip, maximum length, options, on-state names, colours, borders, fonts,
 * captions, rotation, annotation flags; the streams pdfcore drew are written back with
 * the bytes they had (a widget's next drawing writes over its last one), and an author's
 * streams, which pdfcore never writes over, are referred to again. So an undo that
 * restores the state taken before its command leaves these dictionaries and streams as
 * they were, byte for byte. Not undone: widgets that joined or left the field, and a new
 * name or place of the field (restoring puts the form's /Fields back as it was: a state
 * is for an undo that comes before any other change is undone). Appearances that wait
 * to be drawn are drawn before the state is taken. A state keeps its document alive until
 * PDFieldStateFree, and the objects it refers to from being collected
 * (PDDocCollectGarbage). All three calls on the document's thread.
 * PDFieldSaveState: NULL field PD_ERR_MISSING_OBJECT, another kind of handle
 * PD_ERR_WRONG_HANDLE, a field whose kids are fields PD_ERR_FIELD_KIND, NULL outState
 * PD_ERR_BAD_ARGUMENT. PDFieldRestoreState: NULL PD_ERR_MISSING_OBJECT; the state stays
 * and may be restored again. PDFieldStateFree: NULL is ignored. */
typedef struct PDFieldStateRec* PDFieldState;
PDFCORE_API PDResult PDFieldSaveState(PDField field, PDFieldState* outState);
PDFCORE_API PDResult PDFieldRestoreState(PDFieldState state);
PDFCORE_API void PDFieldStateFree(PDFieldState state);

/* Text fields: /MaxLen (inherited), 0 when absent; setting 0 removes it. */
PDFCORE_API PDResult PDTextFieldGetMaxLen(PDField field, uint32_t* outMaxLen);
PDFCORE_API PDResult PDTextFieldSetMaxLen(PDField field, uint32_t maxLen);

/* Choice fields: the options of /Opt. An option is a display text and an export
 * value; an option stored as one string has both equal. */
PDFCORE_API PDResult PDChoiceFieldGetNumOptions(PDField field, uint32_t* outCount);
PDFCORE_API PDResult PDChoiceFieldGetOptionValue(PDField field, uint32_t index,
                                                 char16_t* buf, uint32_t bufLen,
                                                 uint32_t* outLen);
PDFCORE_API PDResult PDChoiceFieldGetOptionExportValue(PDField field, uint32_t index,
                                                       char16_t* buf, uint32_t bufLen,
                                                       uint32_t* outLen);
/* Inserts an option before index (index == count appends; larger: PD_ERR_RANGE). An
 * empty export value, or one equal to the display text, stores one string. Widgets are
 * not regenerated (PDFieldUpdateWidgets does that). */
PDFCORE_API PDResult PDChoiceFieldInsertOption(PDField field, uint32_t index,
                                               const char16_t* display, uint32_t displayLen,
                                               const char16_t* exportValue,
                                               uint32_t exportLen);
/* Removes /Opt and the selected indices /I; /V stays as it is. */
PDFCORE_API PDResult PDChoiceFieldRemoveAllOptions(PDField field);

/* ---- Widgets ------------------------------------------------------------ */

/* Widget creators: a new widget annotation of field with the given rectangle, tied
 * to page (/P; page may be NULL) but not in the page's /Annots: PDPageAddAnnot puts
 * it there. The field must be of the creator's type (PD_ERR_FIELD_KIND), terminal,
 * and of the same document as page. The widget gets the Print flag, a border and an
 * appearance. A new button widget's on-state is "Yes". */
PDFCORE_API PDResult PDCreateButtonWidgetAnnot(PDDoc doc, PDField field, PDPage page,
                                               const PDRect* rect, PDAnnot* outWidget);
PDFCORE_API PDResult PDCreateTextWidgetAnnot(PDDoc doc, PDField field, PDPage page,
                                             const PDRect* rect, PDAnnot* outWidget);
PDFCORE_API PDResult PDCreateChoiceWidgetAnnot(PDDoc doc, PDField field, PDPage page,
                                               const PDRect* rect, PDAnnot* outWidget);
PDFCORE_API PDResult PDCreateSignWidgetAnnot(PDDoc doc, PDField field, PDPage page,
                                             const PDRect* rect, PDAnnot* outWidget);

/* The field of a widget (the widget itself in the field role when the two share a
 * dictionary), or NULL. Not a widget: PD_ERR_NOT_WIDGET. */
PDFCORE_API PDResult PDWidgetAnnotGetParent(PDAnnot widget, PDField* outField);

/* The setters below draw the widget's appearance again (the highlight mode excepted, which
 * only says how a viewer shows a click). */

/* /MK /R: 0, 90, 180 or 270 (0 when absent). Setting takes any multiple of 90,
 * negative ones too, and stores it modulo 360; other values: PD_ERR_BAD_ARGUMENT. */
PDFCORE_API PDResult PDWidgetAnnotGetRotate(PDAnnot widget, int32_t* outDegrees);
PDFCORE_API PDResult PDWidgetAnnotSetRotate(PDAnnot widget, int32_t degrees);

/* Border style (/BS). style: 0 solid, 1 dashed, 2 beveled, 3 inset, 4 underline. */
#define PD_MAX_DASH 10
typedef struct PDBorderStyle {
    int32_t style;
    float width;                /* points; 1 when absent */
    uint32_t dashCount;         /* entries used in dash, at most PD_MAX_DASH */
    float dash[PD_MAX_DASH];
} PDBorderStyle;
PDFCORE_API PDResult PDWidgetAnnotGetBorderStyle(PDAnnot widget, PDBorderStyle* outStyle);
/* dashCount above PD_MAX_DASH is cut to it; style outside 0..4 or a negative width:
 * PD_ERR_BAD_ARGUMENT. */
PDFCORE_API PDResult PDWidgetAnnotSetBorderStyle(PDAnnot widget, const PDBorderStyle* style);

/* /MK /BG and /MK /BC; 0 (no colour) when absent. */
PDFCORE_API PDResult PDWidgetAnnotGetBgColor(PDAnnot widget, uint32_t* outArgb);
PDFCORE_API PDResult PDWidgetAnnotSetBgColor(PDAnnot widget, uint32_t argb);
PDFCORE_API PDResult PDWidgetAnnotGetBorderColor(PDAnnot widget, uint32_t* outArgb);
PDFCORE_API PDResult PDWidgetAnnotSetBorderColor(PDAnnot widget, uint32_t argb);

/* Highlight mode (/H): 0 none, 1 invert (the default when absent), 2 outline,
 * 3 push, 4 toggle. */
PDFCORE_API PDResult PDWidgetAnnotGetHighlight(PDAnnot widget, int32_t* outMode);
PDFCORE_API PDResult PDWidgetAnnotSetHighlight(PDAnnot widget, int32_t mode);

/* Font of the default appearance (/DA). For a widget that is its field's only widget the
 * /DA is written to the field (and to the widget too when it has a /DA of its own); a
 * widget of a field with several widgets gets a /DA of its own, so that the others keep
 * their look. The font resource goes into the form's /DR. family: the atom of a font family name ("Helvetica", "MS Gothic"); the
 * standard 14 families are Type 1 fonts, others non-embedded TrueType fonts that
 * viewers substitute. format: 0 Type 1, 1 TrueType (as read; ignored on write for
 * the standard families). style: bit 1 bold, bit 2 italic. Reading a /DA without a
 * font gives PD_ERR_NO_VALUE. */
typedef struct PDFontInfo {
    PDAtom family;
    int32_t format;
    int32_t style;
} PDFontInfo;
PDFCORE_API PDResult PDWidgetAnnotGetFontInfo(PDAnnot widget, PDFontInfo* outInfo);
PDFCORE_API PDResult PDWidgetAnnotSetFontInfo(PDAnnot widget, const PDFontInfo* info);
/* Font size of /DA, 0 meaning automatic; negative: PD_ERR_BAD_ARGUMENT. */
PDFCORE_API PDResult PDWidgetAnnotGetFontSize(PDAnnot widget, float* outSize);
PDFCORE_API PDResult PDWidgetAnnotSetFontSize(PDAnnot widget, float size);
/* Text colour of /DA; opaque black (0xFF000000) when /DA sets none. */
PDFCORE_API PDResult PDWidgetAnnotGetFontColor(PDAnnot widget, uint32_t* outArgb);
PDFCORE_API PDResult PDWidgetAnnotSetFontColor(PDAnnot widget, uint32_t argb);

/* Button captions: /MK /CA (normal), /AC (down), /RC (rollover). For check boxes and
 * radio buttons the normal caption is the ZapfDingbats character drawn in the on
 * state ("4" check, "l" circle, "8" cross, "u" diamond, "n" square, "H" star). */
PDFCORE_API PDResult PDButtonWidgetAnnotGetCaption(PDAnnot widget, char16_t* buf,
                                                   uint32_t bufLen, uint32_t* outLen);
PDFCORE_API PDResult PDButtonWidgetAnnotSetCaption(PDAnnot widget, const char16_t* text,
                                                   uint32_t len);
PDFCORE_API PDResult PDButtonWidgetAnnotGetDownCaption(PDAnnot widget, char16_t* buf,
                                                       uint32_t bufLen, uint32_t* outLen);
PDFCORE_API PDResult PDButtonWidgetAnnotSetDownCaption(PDAnnot widget, const char16_t* text,
                                                       uint32_t len);
PDFCORE_API PDResult PDButtonWidgetAnnotGetRolloverCaption(PDAnnot widget, char16_t* buf,
                                                           uint32_t bufLen, uint32_t* outLen);
PDFCORE_API PDResult PDButtonWidgetAnnotSetRolloverCaption(PDAnnot widget,
                                                           const char16_t* text,
                                                           uint32_t len);

/* Icon fit (/MK /IF). scaleWhen: 0 always, 1 when bigger, 2 when smaller, 3 never;
 * scaleHow: 0 proportional, 1 anamorphic; left/bottom: /A, 0.5 each by default;
 * fitBounds: /FB. */
typedef struct PDIconFit {
    int32_t scaleWhen;
    int32_t scaleHow;
    float left;
    float bottom;
    PDBool fitBounds;
} PDIconFit;
PDFCORE_API PDResult PDButtonWidgetAnnotGetIconFit(PDAnnot widget, PDIconFit* outFit);
PDFCORE_API PDResult PDButtonWidgetAnnotSetIconFit(PDAnnot widget, const PDIconFit* fit);

/* The on-state name of a check box or radio widget: the appearance state other than
 * Off, as text (the name's bytes as UTF-8, or as Latin-1 when they are not UTF-8).
 * PD_ERR_NO_VALUE for a widget without one (push buttons). Setting renames the on state
 * in the widget's /AP /N and /D, its /AS and the field's /V and /DV that named it ("Off":
 * PD_ERR_BAD_ARGUMENT; the state's own text keeps its bytes), keeps the widget on when it
 * was on, and, for a field with export values in /Opt (one per widget, in the order of its
 * widgets), writes the text there too; an empty name takes the on state away, leaving the
 * widget off and without one, as it was before it had one. */
PDFCORE_API PDResult PDButtonWidgetAnnotGetChoice(PDAnnot widget, char16_t* buf,
                                                  uint32_t bufLen, uint32_t* outLen);
PDFCORE_API PDResult PDButtonWidgetAnnotSetChoice(PDAnnot widget, const char16_t* name,
                                                  uint32_t len);

/* Text alignment (/Q, inherited): 0 left, 1 centred, 2 right. */
PDFCORE_API PDResult PDTextWidgetAnnotGetQuadding(PDAnnot widget, int32_t* outQuadding);
PDFCORE_API PDResult PDTextWidgetAnnotSetQuadding(PDAnnot widget, int32_t quadding);

/* The selected option of a choice widget's field: the index of the option whose export
 * value is /V (the first one for several), PD_NO_SELECTION when none is. Setting an
 * index sets /V to that option's export value and /I to [index]; PD_NO_SELECTION
 * clears both; an index past the options: PD_ERR_RANGE. */
#define PD_NO_SELECTION 0xFFFFFFFFu
PDFCORE_API PDResult PDChoiceWidgetAnnotGetSelection(PDAnnot widget, uint32_t* outIndex);
PDFCORE_API PDResult PDChoiceWidgetAnnotSetSelection(PDAnnot widget, uint32_t index);

/* ---- Generic objects --------------------------------------------------- */

/* Handles of generic objects, actions, destinations, file specifications and field
 * lists may stand for direct objects (an action written inside its annotation, a
 * destination array inside its action). Such handles are not registered: two lookups
 * of the same direct object may give two handle values. Changes through any of them
 * change the document. A new object made by a PDDocCreate...Object call belongs to no
 * place in the document until it is put somewhere (PDObjectDictPut, a setter). */
typedef PDHandle PDObject;
typedef PDHandle PDAction;
typedef PDHandle PDDest;
typedef PDHandle PDFileSpec;
typedef PDHandle PDActionFieldsData;

enum {
    PD_OBJ_NULL = 0,
    PD_OBJ_BOOLEAN = 1,
    PD_OBJ_INTEGER = 2,
    PD_OBJ_REAL = 3,
    PD_OBJ_STRING = 4,
    PD_OBJ_NAME = 5,
    PD_OBJ_ARRAY = 6,
    PD_OBJ_DICTIONARY = 7,
    PD_OBJ_STREAM = 8
};

PDFCORE_API PDResult PDDocCreateDictObject(PDDoc doc, PDObject* outObject);
PDFCORE_API PDResult PDDocCreateIntObject(PDDoc doc, int32_t value, PDObject* outObject);
PDFCORE_API PDResult PDDocCreateStringObjectFromUnicode(PDDoc doc, const char16_t* text,
                                                        uint32_t len, PDObject* outObject);
/* One of PD_OBJ_*. */
PDFCORE_API PDResult PDObjectGetType(PDObject object, int32_t* outType);
/* A name object's atom; PD_ERR_WRONG_HANDLE for an object of another type. */
PDFCORE_API PDResult PDObjectGetName(PDObject object, PDAtom* outName);
/* An integer object's value; PD_ERR_WRONG_HANDLE for another type. */
PDFCORE_API PDResult PDObjectGetInt(PDObject object, int32_t* outValue);
/* A string object as text (PDFDocEncoding or UTF-16BE decoded); a name gives its name. */
PDFCORE_API PDResult PDObjectGetUnicodeString(PDObject object, char16_t* buf, uint32_t bufLen,
                                              uint32_t* outLen);
/* The value of key in a dictionary (or a stream's dictionary); NULL when absent. */
PDFCORE_API PDResult PDObjectDictFind(PDObject dict, PDAtom key, PDObject* outValue);
/* Sets key to value (another generic object of the same document); NULL value removes
 * the key. */
PDFCORE_API PDResult PDObjectDictPut(PDObject dict, PDAtom key, PDObject value);
/* Sets key to the name object of atom name. */
PDFCORE_API PDResult PDObjectDictPutName(PDObject dict, PDAtom key, PDAtom name);

/* ---- Destinations and file specifications ------------------------------- */

/* A destination: [page /Type params...]. type is the atom of the fit type: XYZ (left,
 * top, zoom), Fit, FitB (no parameters), FitH, FitBH (top), FitV, FitBV (left), FitR
 * (left, bottom, right; top is taken equal to the page's top on creation). Unused
 * parameters are 0. A page index past the document's pages: PD_ERR_RANGE. */
PDFCORE_API PDResult PDDestCreate(PDDoc doc, PDAtom type, uint32_t pageIndex, float param1,
                                  float param2, float param3, PDDest* outDest);
/* The page of the destination: the index of the page it names in this document or, for a
 * page given by number (as GoToE and GoToR destinations are, pointing into another file),
 * that number. PD_ERR_NO_VALUE for a missing page or an object that is no page. Named
 * destinations are resolved through /Dests and the /Names tree when the destination is
 * handed out. */
PDFCORE_API PDResult PDDestGetPageIndex(PDDest dest, uint32_t* outPageIndex);
PDFCORE_API PDResult PDDestGetType(PDDest dest, PDAtom* outType);
/* The three parameters in the order of PDDestCreate; null entries give 0. */
PDFCORE_API PDResult PDDestGetParams(PDDest dest, float outParams[3]);

/* A file specification dictionary. kind: PD_ATOM_Filespec for a file (/F and /UF), or
 * the atom of "URL" for a URL specification (/FS /URL) as SubmitForm uses. The path may
 * be empty. */
PDFCORE_API PDResult PDFileSpecCreate(PDDoc doc, PDAtom kind, const char16_t* path,
                                      uint32_t len, PDFileSpec* outFileSpec);
/* /UF, else /F, else the string itself for a file specification written as a string. */
PDFCORE_API PDResult PDFileSpecGetPath(PDFileSpec fileSpec, char16_t* buf, uint32_t bufLen,
                                       uint32_t* outLen);

/* ---- Actions ------------------------------------------------------------ */

/* The type-specific argument of PDActionCreate. JavaScript: text is the script. URI:
 * bytes are the URI (7-bit as PDF wants it; stored unchanged; may be empty). Launch: text is the file
 * path. SubmitForm: text is the server URL. Named: text is the action name (for example
 * "SaveAs", "Print"). GoTo: dest. Hide and ResetForm take no argument (arg may be NULL).
 * Fields not used by a type are ignored. */
typedef struct PDActionArg {
    const char16_t* text;
    uint32_t textLen;
    const char* bytes;
    uint32_t bytesLen;
    PDDest dest;
} PDActionArg;

/* A new action of type (GoTo, GoToE, Hide, JavaScript, Launch, Named, ResetForm,
 * SubmitForm, URI); other types: PD_ERR_UNSUPPORTED. A GoTo without dest:
 * PD_ERR_BAD_ARGUMENT. */
PDFCORE_API PDResult PDActionCreate(PDDoc doc, PDAtom type, const PDActionArg* arg,
                                    PDAction* outAction);
/* The action that a dictionary with /S describes (without /S: PD_ERR_BAD_ARGUMENT). */
PDFCORE_API PDResult PDCreateActionFromObject(PDDoc doc, PDObject dict, PDAction* outAction);
/* /S as an atom. */
PDFCORE_API PDResult PDActionGetType(PDAction action, PDAtom* outType);
/* The actions of /Next (a single action or an array). */
PDFCORE_API PDResult PDActionGetNextLength(PDAction action, uint32_t* outCount);
PDFCORE_API PDResult PDActionGetNext(PDAction action, uint32_t index, PDAction* outNext);
/* Makes next the only next action; NULL removes /Next. An action that would become its
 * own successor: PD_ERR_CYCLE. A next action that stands for a direct object (one made by
 * PDCreateActionFromObject from a new dictionary, or read inside another object) is stored
 * as a copy that is an object of its own, which the handle next stands for from then on
 * (the dictionary's handle, and a place that held the direct object, keep it): chained
 * actions never nest inside each other. The check
 * for a loop walks the chain that follows next, so a long chain is linked from its first
 * action on (each new action without successors yet) in linear time, and from its last
 * action back in quadratic time. */
PDFCORE_API PDResult PDActionSetNext(PDAction action, PDAction next);

/* GoTo: the destination (/D), or NULL. */
PDFCORE_API PDResult PDActionGoToGetDest(PDAction action, PDDest* outDest);
/* GoToE: destination, new-window flag and target dictionary (/T). The flag answers
 * PD_ERR_NO_VALUE when /NewWindow is absent and PD_ERR_RANGE when it holds no boolean. */
PDFCORE_API PDResult PDActionGoToEGetDest(PDAction action, PDDest* outDest);
PDFCORE_API PDResult PDActionGoToESetDest(PDAction action, PDDest dest);
PDFCORE_API PDResult PDActionGoToEGetNewWindow(PDAction action, PDBool* outNewWindow);
PDFCORE_API PDResult PDActionGoToESetNewWindow(PDAction action, PDBool newWindow);
PDFCORE_API PDResult PDActionGoToEGetTarget(PDAction action, PDObject* outTarget);
/* A target that is the action, or holds it: PD_ERR_CYCLE. */
PDFCORE_API PDResult PDActionGoToESetTarget(PDAction action, PDObject target);

/* Hide: /H (true, hide, when absent) and the items of /T, each a field's fully
 * qualified name (item type 1) or an annotation (item type 2). */
enum { PD_HIDE_ITEM_FIELD_NAME = 1, PD_HIDE_ITEM_ANNOT = 2 };
PDFCORE_API PDResult PDActionHideIsHiding(PDAction action, PDBool* outHiding);
PDFCORE_API PDResult PDActionHideSetHiding(PDAction action, PDBool hiding);
PDFCORE_API PDResult PDActionHideGetNumItems(PDAction action, uint32_t* outCount);
PDFCORE_API PDResult PDActionHideGetItemType(PDAction action, uint32_t index,
                                             int32_t* outType);
/* The name of a field-name item; an annotation item: PD_ERR_WRONG_HANDLE. */
PDFCORE_API PDResult PDActionHideGetItemFieldName(PDAction action, uint32_t index,
                                                  char16_t* buf, uint32_t bufLen,
                                                  uint32_t* outLen);
PDFCORE_API PDResult PDActionHideAddItemFieldName(PDAction action, const char16_t* name,
                                                  uint32_t len);

/* JavaScript: the script (/JS, a string or a stream). */
PDFCORE_API PDResult PDActionJavaScriptGetScript(PDAction action, char16_t* buf,
                                                 uint32_t bufLen, uint32_t* outLen);
/* Launch: the file specification (/F, or /Win /F). */
PDFCORE_API PDResult PDActionLaunchGetFileSpec(PDAction action, PDFileSpec* outFileSpec);
/* URI: the bytes of /URI, two calls as for texts, counted in bytes. */
PDFCORE_API PDResult PDActionURIGetURI(PDAction action, char* buf, uint32_t bufLen,
                                       uint32_t* outLen);
/* Named: /N as an atom. */
PDFCORE_API PDResult PDActionNamedGetName(PDAction action, PDAtom* outName);

/* ResetForm and SubmitForm: /Flags (0 when absent) and /Fields. Getting the fields of an
 * action without /Fields gives an empty list, which the setter stores by removing
 * /Fields. */
PDFCORE_API PDResult PDActionResetFormGetFlags(PDAction action, uint32_t* outFlags);
PDFCORE_API PDResult PDActionResetFormSetFlags(PDAction action, uint32_t flags);
PDFCORE_API PDResult PDActionResetFormGetFieldsData(PDAction action,
                                                    PDActionFieldsData* outData);
PDFCORE_API PDResult PDActionResetFormSetFieldsData(PDAction action, PDActionFieldsData data);
PDFCORE_API PDResult PDActionSubmitFormGetFlags(PDAction action, uint32_t* outFlags);
PDFCORE_API PDResult PDActionSubmitFormSetFlags(PDAction action, uint32_t flags);
PDFCORE_API PDResult PDActionSubmitFormGetFieldsData(PDAction action,
                                                     PDActionFieldsData* outData);
PDFCORE_API PDResult PDActionSubmitFormSetFieldsData(PDAction action, PDActionFieldsData data);
/* SubmitForm: the server address (/F) as a file specification. */
PDFCORE_API PDResult PDActionSubmitFormGetServerURL(PDAction action,
                                                    PDFileSpec* outFileSpec);

/* A list of fields for ResetForm and SubmitForm. Entries written by name in a file are
 * looked up by name; a name that finds no field gives a NULL field. */
PDFCORE_API PDResult PDCreateActionFieldsData(PDDoc doc, PDActionFieldsData* outData);
PDFCORE_API PDResult PDActionFieldsDataGetNumFields(PDActionFieldsData data,
                                                    uint32_t* outCount);
PDFCORE_API PDResult PDActionFieldsDataGetField(PDActionFieldsData data, uint32_t index,
                                                PDField* outField);
PDFCORE_API PDResult PDActionFieldsDataAddField(PDActionFieldsData data, PDField field);

/* ---- Trigger actions ---------------------------------------------------- */

/* Getters give NULL when there is no action; setters take NULL to remove it.
 * Widget triggers live in the widget's /AA: E mouse enter, X mouse exit, D mouse down,
 * U mouse up, Fo focus, Bl blur. The click action of a button is the widget's /A.
 * Field triggers live in the field's /AA: F format, V validate, C calculate, K modify
 * (keystroke). Setting a calculate action also lists the field in the form's
 * calculation order (/AcroForm /CO); removing it takes the field out of it. */
PDFCORE_API PDResult PDWidgetAnnotGetMouseEnterAction(PDAnnot widget, PDAction* outAction);
PDFCORE_API PDResult PDWidgetAnnotSetMouseEnterAction(PDAnnot widget, PDAction action);
PDFCORE_API PDResult PDWidgetAnnotGetMouseExitAction(PDAnnot widget, PDAction* outAction);
PDFCORE_API PDResult PDWidgetAnnotSetMouseExitAction(PDAnnot widget, PDAction action);
PDFCORE_API PDResult PDWidgetAnnotGetMouseDownAction(PDAnnot widget, PDAction* outAction);
PDFCORE_API PDResult PDWidgetAnnotSetMouseDownAction(PDAnnot widget, PDAction action);
PDFCORE_API PDResult PDWidgetAnnotGetMouseUpAction(PDAnnot widget, PDAction* outAction);
PDFCORE_API PDResult PDWidgetAnnotSetMouseUpAction(PDAnnot widget, PDAction action);
PDFCORE_API PDResult PDWidgetAnnotGetFocusAction(PDAnnot widget, PDAction* outAction);
PDFCORE_API PDResult PDWidgetAnnotSetFocusAction(PDAnnot widget, PDAction action);
PDFCORE_API PDResult PDWidgetAnnotGetBlurAction(PDAnnot widget, PDAction* outAction);
PDFCORE_API PDResult PDWidgetAnnotSetBlurAction(PDAnnot widget, PDAction action);
PDFCORE_API PDResult PDButtonWidgetAnnotGetAction(PDAnnot widget, PDAction* outAction);
PDFCORE_API PDResult PDButtonWidgetAnnotSetAction(PDAnnot widget, PDAction action);
PDFCORE_API PDResult PDFieldGetFormatAction(PDField field, PDAction* outAction);
PDFCORE_API PDResult PDFieldSetFormatAction(PDField field, PDAction action);
PDFCORE_API PDResult PDFieldGetValidateAction(PDField field, PDAction* outAction);
PDFCORE_API PDResult PDFieldSetValidateAction(PDField field, PDAction action);
PDFCORE_API PDResult PDFieldGetCalculateAction(PDField field, PDAction* outAction);
PDFCORE_API PDResult PDFieldSetCalculateAction(PDField field, PDAction action);
PDFCORE_API PDResult PDFieldGetModifyAction(PDField field, PDAction* outAction);
PDFCORE_API PDResult PDFieldSetModifyAction(PDField field, PDAction action);

/* The form's calculation order (/AcroForm /CO): the fields whose values readers compute,
 * in the order they compute them. Entries that are no field dictionaries are skipped
 * (and count for nothing). A form without /CO has none. */
PDFCORE_API PDResult PDDocGetNumCalculatedFields(PDDoc doc, uint32_t* outCount);
/* The field at index in that order (a new reference for the caller to release);
 * PD_ERR_RANGE past the end. */
PDFCORE_API PDResult PDDocGetCalculatedField(PDDoc doc, uint32_t index, PDField* outField);
/* Puts the calculation order in the order of fields: the same fields as the order holds,
 * each once, in any order. Anything else (a field missing or added, one given twice, a
 * field of another document) is PD_ERR_BAD_ARGUMENT and changes nothing. count 0 with
 * fields NULL is the order of a form that calculates nothing. Main thread. */
PDFCORE_API PDResult PDDocSetCalculationOrder(PDDoc doc, const PDField* fields, uint32_t count);

#ifdef __cplusplus
}
#endif

#endif /* PDFCORE_PDFCORE_H */
