#include "support-proxy/Clipboard"

#include "ClipboardBitmap.h"
#include "ModulePlatform.h"
#include "kr/KRRuntime.h"
#include "qf/Interfaces.h"
#include "qf/MemoryClipboard.h"
#include "qf/internal/SOImpl.h"
#include "qf/internal/ServiceObjectException.h"
#include "service-common/ServiceProvider"

#include <cstring>
#include <memory>
#include <stdexcept>

using SODetails::BasicServiceObjectPtr;
using SODetails::ServiceObject;

namespace {

constexpr uint32_t kManagerKey = 0x5146436D; // 'QFCm'
constexpr uint32_t kManagerStaticDataId = 0x4B52434D;
constexpr uint32_t kPrivateClipboardImplId = 0x51464370;

constexpr const char* kDestroyedText = "Fail to get atom singleton instance! Is is already destroyed!";
constexpr const char* kWrongIdText = "Fail to get atom singleton instance! Incorrect StaticDataID!";
constexpr const char* kFailedText = "Fail to get atom singleton instance!";

uint32_t formatAtom(const char* name) {
    uint32_t atom = 0;
    if (KRGetAtomFromString(name, &atom) != KR_OK)
        ThrowServiceObjectException(SOImpl::kGenericFailure, u"Unspecified Error!", "formatAtom");
    return atom;
}

// The singleton under key, made with make on first use (and handed to the store, which
// releases it with destroy when it goes).
template <typename T, typename Make>
T* singleton(uint32_t key, uint32_t id, Make&& make, KRStaticDataDestroyProc destroy) {
    if (!IsSingletonStaticDataStorageAvailable()) throw std::runtime_error(kDestroyedText);
    for (int attempt = 0; attempt < 2; ++attempt) {
        void* data = nullptr;
        switch (GetSingletonStaticData(key, id, &data)) {
        case KR_OK:
            return static_cast<T*>(data);
        case KR_ERR_WRONG_ID:
            throw std::runtime_error(kWrongIdText);
        case KR_ERR_DESTROYED:
            throw std::runtime_error(kDestroyedText);
        case KR_ERR_NOT_FOUND:
            break;
        default:
            throw std::runtime_error(kFailedText);
        }
        T* fresh = make();
        const uint32_t created = CreateSingletonStaticData(key, id, fresh, destroy);
        if (created == KR_OK) {
            // The store runs destroy when it goes, perhaps after the module was unloaded.
            ModulePlatform::PinCurrentModule();
            return fresh;
        }
        destroy(fresh);
        if (created == KR_ERR_DESTROYED) throw std::runtime_error(kDestroyedText);
        if (created != KR_ERR_EXISTS) throw std::runtime_error(kFailedText);
    }
    throw std::runtime_error(kFailedText);
}

QF::ClipboardTable& ops(ServiceObject* clipboard) {
    return *SODetails::methods<QF::ClipboardTable>(clipboard);
}

// Slots of QF::ClipboardTable.
enum : size_t {
    kOpen, kClose, kEmpty, kPutData, kHasFormat, kGetData, kPutText, kGetText, kPutBitmap, kCount
};

// The clipboard kept open for one operation.
class Session {
  public:
    explicit Session(BasicServiceObjectPtr<> clipboard) : clipboard_(std::move(clipboard)) {
        SystemClipboardManager::Instance().Open(clipboard_.get());
    }
    ~Session() { SystemClipboardManager::Instance().Close(clipboard_.get()); }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    ServiceObject* get() const { return clipboard_.get(); }
    // Whether the clipboard offers the operation in slot.
    bool offers(size_t slot) const { return SODetails::hasMethod(clipboard_.get(), slot); }

  private:
    BasicServiceObjectPtr<> clipboard_;
};

[[noreturn]] void failed(uint32_t code, const char* function) {
    ThrowServiceObjectException(code ? code : SOImpl::kGenericFailure, u"Unspecified Error!",
                                function);
}

std::string getData(ServiceObject* c, uint32_t format) {
    uint64_t length = 0;
    if (ops(c).GetData(c, format, nullptr, 0, &length) != 0) return {};
    std::string bytes(length, '\0');
    const uint32_t code = ops(c).GetData(c, format, bytes.data(), length, &length);
    if (code != 0) failed(code, "ClipboardInterface::GetData");
    bytes.resize(length);
    return bytes;
}

// The eight operations on either clipboard.
void reset(const Session& s) {
    if (s.offers(kEmpty)) {
        if (const uint32_t code = ops(s.get()).Empty(s.get())) failed(code, "ClipboardInterface::Reset");
    }
}
void putData(const Session& s, uint32_t format, const std::string& bytes) {
    if (!s.offers(kPutData)) return;
    if (const uint32_t code = ops(s.get()).PutData(s.get(), format, bytes.data(), bytes.size()))
        failed(code, "ClipboardInterface::PutData");
}
bool hasFormat(const Session& s, uint32_t format) {
    uint8_t has = 0;
    return s.offers(kHasFormat) && ops(s.get()).HasFormat(s.get(), format, &has) == 0 && has;
}
std::string getDataOf(const Session& s, uint32_t format) {
    return s.offers(kGetData) ? getData(s.get(), format) : std::string();
}
void checkBitmap(const ClipboardBitmap& b) {
    if (uint64_t(b.width) * b.height != b.pixels.size())
        ThrowServiceObjectException(SOImpl::kBadArgument, u"Bad param", "ClipboardInterface::PutBitmap");
}
void putBitmap(const Session& s, const ClipboardBitmap& b) {
    checkBitmap(b);
    if (!s.offers(kPutBitmap)) return;
    if (const uint32_t code = ops(s.get()).PutBitmap(s.get(), b.width, b.height, b.pixels.data()))
        failed(code, "ClipboardInterface::PutBitmap");
}
uint64_t formatCount(const Session& s) {
    uint64_t count = 0;
    if (!s.offers(kCount) || ops(s.get()).CountFormats(s.get(), &count) != 0) return 0;
    return count;
}

BasicServiceObjectPtr<> systemClipboard() {
    return SystemClipboardManager::Instance().LazyInit();
}
BasicServiceObjectPtr<> privateClipboard() {
    return BasicServiceObjectPtr<>::share(PrivateClipboardStore());
}

} // namespace

// ---- SystemClipboardManager ----------------------------------------------------------------

SystemClipboardManager& SystemClipboardManager::Instance() {
    return *singleton<SystemClipboardManager>(
        kManagerKey, kManagerStaticDataId, [] { return new SystemClipboardManager; },
        [](void* data) { delete static_cast<SystemClipboardManager*>(data); });
}

BasicServiceObjectPtr<> SystemClipboardManager::LazyInit() {
    static const uint32_t kWinServicesAtom = SP::ResolveAtom("KRWinServices");
    const auto services = SP::TryGetServiceObject(kWinServicesAtom);
    BasicServiceObjectPtr<> clipboard;
    if (SODetails::hasMethod(services.get(), 0) &&
        SODetails::methods<QF::WinServicesTable>(services.get())
                ->GetClipboard(services.get(), clipboard.put()) != 0)
        clipboard.reset();
    if (!clipboard)
        ThrowServiceObjectException(SOImpl::kNotInitialized, u"Not initialized",
                                    "SystemClipboardManager::LazyInit");
    return clipboard;
}

void SystemClipboardManager::Open(ServiceObject* clipboard) {
    const uint32_t code =
        SODetails::hasMethod(clipboard, kOpen) ? ops(clipboard).Open(clipboard) : SOImpl::kNotInitialized;
    if (code != 0)
        ThrowServiceObjectException(code, u"Open clipboard failed!!!", "SystemClipboardManager::Open");
}

void SystemClipboardManager::Close(ServiceObject* clipboard) {
    if (SODetails::hasMethod(clipboard, kClose)) ops(clipboard).Close(clipboard);
}

void SystemClipboardManager::PutUnicodeText(ServiceObject* clipboard, const std::u16string& text) {
    if (!SODetails::hasMethod(clipboard, kPutText)) return;
    if (const uint32_t code = ops(clipboard).PutUnicodeText(clipboard, text.data(), text.size()))
        ThrowServiceObjectException(code, u"Call KRClipboard.CopyUnicodeText failed.",
                                    "SystemClipboardManager::PutUnicodeText");
}

std::u16string SystemClipboardManager::GetUnicodeText(ServiceObject* clipboard) {
    static constexpr const char* kFunction = "SystemClipboardManager::GetUnicodeText";
    if (!SODetails::hasMethod(clipboard, kGetText)) return {};
    uint64_t length = 0;
    const uint32_t probed = ops(clipboard).GetUnicodeText(clipboard, nullptr, 0, &length);
    if (probed == SOImpl::kNegativeAnswer) return {};
    if (probed != 0)
        ThrowServiceObjectException(probed, u"Call KRClipboard.GetUnicodeText failed.", kFunction);
    std::u16string text(length, u'\0');
    const uint32_t code = ops(clipboard).GetUnicodeText(clipboard, text.data(), length, &length);
    if (code != 0)
        ThrowServiceObjectException(code, u"Call KRClipboard.GetUnicodeText failed.", kFunction);
    text.resize(length);
    return text;
}

// ---- the private store ------------------------------------------------------------------

ServiceObject* PrivateClipboardStore() {
    return singleton<ServiceObject>(
        QF::kPrivateClipboardKey, QF::kClipboardStaticDataId,
        [] {
            return QF::MakeMemoryClipboard<SODetails::ServiceObjectTraits>(
                nullptr, formatAtom("UnicodeText"), formatAtom("Bitmap"), kPrivateClipboardImplId);
        },
        [](void* data) { SODetails::release(static_cast<ServiceObject*>(data)); });
}

// ---- the two clipboards -----------------------------------------------------------------

#define QF_CLIPBOARD_OPERATIONS(Class, source)                                                     \
    void Class::Reset() { reset(Session(source())); }                                              \
    void Class::PutData(uint32_t format, const std::string& bytes) {                               \
        putData(Session(source()), format, bytes);                                                 \
    }                                                                                              \
    bool Class::HasFormat(uint32_t format) { return hasFormat(Session(source()), format); }        \
    std::string Class::GetData(uint32_t format) { return getDataOf(Session(source()), format); }   \
    void Class::PutUnicodeText(const std::u16string& text) {                                       \
        const Session s(source());                                                                 \
        SystemClipboardManager::Instance().PutUnicodeText(s.get(), text);                          \
    }                                                                                              \
    std::u16string Class::GetUnicodeText() {                                                       \
        const Session s(source());                                                                 \
        return SystemClipboardManager::Instance().GetUnicodeText(s.get());                         \
    }                                                                                              \
    uint64_t Class::FormatCount() { return formatCount(Session(source())); }

QF_CLIPBOARD_OPERATIONS(SystemClipboard, systemClipboard)
QF_CLIPBOARD_OPERATIONS(PrivateClipboard, privateClipboard)

#undef QF_CLIPBOARD_OPERATIONS

void SystemClipboard::PutBitmap(const ClipboardBitmap& bitmap) {
    putBitmap(Session(systemClipboard()), bitmap);
}

// The private store keeps a copy of its own, as the system's clipboard does.
void PrivateClipboard::PutBitmap(const ClipboardBitmap& bitmap) {
    const Session s(privateClipboard());
    checkBitmap(bitmap);
    putBitmap(s, CopyClipboardBitmap(bitmap));
}
