/* KR runtime: services the host process offers to the modules it loads.
 *
 * Conventions for every call below
 * - Results are uint32_t codes: KR_OK (0) on success, otherwise one of the
 *   KR_ERR_* codes. A call that fails leaves its outputs as they were, except
 *   *outLen of the text conversions on KR_ERR_BUFFER_SMALL.
 * - A NULL pointer where a value is required gives KR_ERR_BAD_ARGUMENT.
 * - Every call may be made from any thread, at any time, including from static
 *   constructors and destructors of other modules. None throws or unwinds.
 * - Texts crossing this boundary are UTF-16 (char16_t) or narrow char strings;
 *   lengths are counted in code units (char16_t or char) and never include a
 *   terminating zero. wchar_t is not used.
 * - "ANSI code page": the process's narrow code page. On systems other than
 *   Windows it is UTF-8.
 */
#ifndef KR_KRRUNTIME_H
#define KR_KRRUNTIME_H

#include <stddef.h>
#include <stdint.h>
#ifndef __cplusplus
#include <uchar.h>
#endif

#if defined(_WIN32)
#if defined(KR_BUILDING)
#define KR_API __declspec(dllexport)
#else
#define KR_API __declspec(dllimport)
#endif
#else
#define KR_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Results ------------------------------------------------------------ */

enum {
    KR_OK = 0,
    KR_ERR_OUT_OF_MEMORY = 1, /* an allocation (or a lock) failed; nothing was
                                 changed */
    KR_ERR_LIMIT = 2,         /* the atom table is full (0xFFFFFFFE atoms) */
    KR_ERR_BAD_ARGUMENT = 3,  /* NULL pointer, empty name, length too large */
    KR_ERR_NOT_FOUND = 4,     /* unknown atom id, or no static data under the key */
    KR_ERR_WRONG_ID = 5,      /* static data exists under the key with another id */
    KR_ERR_EXISTS = 6,        /* static data exists under the key already */
    KR_ERR_BUFFER_SMALL = 7,  /* the output buffer is shorter than the text */
    KR_ERR_DESTROYED = 17     /* the static-data store is being or has been
                                 destroyed */
};

/* ---- Atoms -------------------------------------------------------------- */

/* An atom is the process-wide 32-bit id of a name. The same name always gives the
 * same id, from any thread and through either call; an id never changes once given
 * and stays valid for the life of the process. Ids 0 and KR_ATOM_NONE are never
 * handed out, so callers may use them as "no atom" / "not yet resolved". Names are
 * compared as Unicode text, exactly (case-sensitive, no normalisation). */
#define KR_ATOM_NONE 0xFFFFFFFFu

/* The atom of name, a NUL-terminated string in the ANSI code page (UTF-8 outside
 * Windows), made on first use. Bytes that are not valid in the code page are read
 * as U+FFFD, so they name the same atom as U+FFFD itself.
 * name or outId NULL, or name empty: KR_ERR_BAD_ARGUMENT. Table full: KR_ERR_LIMIT. */
KR_API uint32_t KRGetAtomFromString(const char* name, uint32_t* outId);

/* The same for a NUL-terminated UTF-16 name; a name gives the same id here as
 * through KRGetAtomFromString. Unpaired surrogates are read as U+FFFD. */
KR_API uint32_t KRGetAtomFromStringW(const char16_t* name, uint32_t* outId);

/* The name of an atom as a NUL-terminated string in the ANSI code page (UTF-8
 * outside Windows). The string is owned by the runtime, never changes and stays
 * valid for the life of the process. An id never handed out (0 and KR_ATOM_NONE
 * included): KR_ERR_NOT_FOUND. outName NULL: KR_ERR_BAD_ARGUMENT. */
KR_API uint32_t KRGetStringFromAtom(uint32_t id, const char** outName);

/* ---- Singleton static data ---------------------------------------------- */

/* A process-wide store through which the modules of the process share singletons.
 * An entry is found by its key (callers use four-character tags such as 'QFCp' or
 * plain numbers) and carries a static-data id telling the kind of data; a lookup
 * must present the same id. Entries are never removed one by one: the whole store
 * is destroyed once, by KRDestroySingletonStaticData() or at process exit,
 * whichever comes first. Destruction first makes the store unavailable, then
 * calls the destroy callbacks in the reverse order of creation, on the destroying
 * thread and without any lock held. From the moment destruction starts, Create
 * and Get answer KR_ERR_DESTROYED, callbacks included. */
typedef void (*KRStaticDataDestroyProc)(void* data);

/* Stores data under key. On KR_OK the store owns the entry and will call
 * destroy(data) once when it is destroyed; destroy may be NULL when there is
 * nothing to free. It must not unwind, and it must stay callable until then: a
 * module that is unloaded earlier must not leave entries behind it.
 * data NULL: KR_ERR_BAD_ARGUMENT. Key taken already (whatever its id):
 * KR_ERR_EXISTS. Store being or already destroyed: KR_ERR_DESTROYED. When two
 * threads create the same key at once, exactly one gets KR_OK and the other
 * KR_ERR_EXISTS. On any failure the store takes nothing: the caller still owns
 * data. */
KR_API uint32_t CreateSingletonStaticData(uint32_t key, uint32_t staticDataId, void* data,
                                          KRStaticDataDestroyProc destroy);

/* The data stored under key, in *outData. No entry under key: KR_ERR_NOT_FOUND.
 * An entry with another static-data id: KR_ERR_WRONG_ID. Store being or already
 * destroyed: KR_ERR_DESTROYED. outData NULL: KR_ERR_BAD_ARGUMENT. */
KR_API uint32_t GetSingletonStaticData(uint32_t key, uint32_t staticDataId, void** outData);

/* Nonzero until destruction of the store starts, 0 from then on. */
KR_API int IsSingletonStaticDataStorageAvailable(void);

/* Destroys the store now, for hosts that shut down in order (see above). Returns
 * once the callbacks have run. Later calls, and calls made while another thread
 * or a callback is destroying it, return at once without waiting. */
KR_API void KRDestroySingletonStaticData(void);

/* ---- Text conversion ---------------------------------------------------- */

/* The three conversions share one pattern. src holds srcLen units (a zero unit is
 * converted like any other); src may be NULL only when srcLen is 0. The length of
 * the result in units is "needed".
 * - dst NULL: only *outLen is set, to needed (dstLen is ignored). KR_OK.
 * - dstLen < needed: KR_ERR_BUFFER_SMALL, *outLen = needed, dst left as it was.
 * - dstLen == needed: the result is written without terminator. KR_OK.
 * - dstLen > needed: the result and a terminating zero are written. KR_OK.
 * *outLen is always needed on KR_OK. Ill-formed input (bytes that are not UTF-8,
 * overlong forms, encoded surrogates, unpaired surrogates) is never refused: each
 * maximal ill-formed part becomes one U+FFFD. outLen NULL, src NULL with
 * srcLen > 0, or srcLen above SIZE_MAX / 4: KR_ERR_BAD_ARGUMENT. */

/* ANSI code page to UTF-16. Outside Windows the code page is UTF-8, so this is
 * KRConvertUTF8ToUTF16. */
KR_API uint32_t KRConvertACPToUnicode(const char* src, size_t srcLen, char16_t* dst, size_t dstLen,
                                      size_t* outLen);
KR_API uint32_t KRConvertUTF16ToUTF8(const char16_t* src, size_t srcLen, char* dst, size_t dstLen,
                                     size_t* outLen);
KR_API uint32_t KRConvertUTF8ToUTF16(const char* src, size_t srcLen, char16_t* dst, size_t dstLen,
                                     size_t* outLen);

/* ---- The user's language ----------------------------------------------- */

/* The language of the user interface: a primary language subtag of BCP 47 ("en",
 * "ja"), 2 to 8 lower-case ASCII letters. Until a host sets one it is the system's (on
 * POSIX systems the first of LC_ALL, LC_MESSAGES and LANG that is set and not empty:
 * "ja_JP.UTF-8" gives "ja"; "C", "POSIX" or none give "en").
 * KRGetUILanguage writes the tag and a terminating zero to dst: dstLen must be at least
 * its length + 1, else KR_ERR_BUFFER_SMALL; *outLen receives the length either way.
 * dst NULL asks for the length only. outLen NULL: KR_ERR_BAD_ARGUMENT.
 * KRSetUILanguage makes tag the process's language for every module (letters are
 * lower-cased; a region or script after '-' or '_' is dropped). NULL, or a tag whose
 * language part is not 2 to 8 ASCII letters: KR_ERR_BAD_ARGUMENT and no change. */
KR_API uint32_t KRGetUILanguage(char* dst, size_t dstLen, size_t* outLen);
KR_API uint32_t KRSetUILanguage(const char* tag);

#ifdef __cplusplus
}
#endif

#endif /* KR_KRRUNTIME_H */
