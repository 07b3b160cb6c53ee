#include "qf/Property.SO"

#include "service-common/ServiceProvider"

#include <string>
#include <utility>

using SODetails::BasicServiceObjectPtr;
using SODetails::ServiceObject;

namespace QF {

namespace {

// Slots of the host's properties context and of its areas.
constexpr size_t kGetAreaSlot = 0;
constexpr size_t kAddPropertySlot = 0;

} // namespace

PropertyArea OpenPropertyArea(std::u16string_view name) {
    static constexpr const char* kFunction = "QF::OpenPropertyArea";
    static const uint32_t kPropertiesContextAtom = SP::ResolveAtom("QFPropertiesContext");

    BasicServiceObjectPtr<> context = SP::TryGetServiceObject(kPropertiesContextAtom);
    if (!context || SODetails::header(context.get())->interfaceId != kPropertiesContextId ||
        !SODetails::hasMethod(context.get(), kGetAreaSlot))
        return {};

    // GetArea takes the name NUL-terminated.
    const std::u16string terminated(name);
    PropertyArea result{std::move(context), {}};
    auto& ops = *SODetails::methods<PropertiesContextTable>(result.context.get());
    const uint32_t code = ops.GetArea(result.context.get(), terminated.c_str(), result.area.put());
    if (code != SOImpl::kSuccess) {
        result.area.reset();
        ThrowServiceObjectException(code, u"Unspecified Error!", kFunction);
    }
    if (result.area && SODetails::header(result.area.get())->interfaceId != kPropertyAreaId)
        result.area.reset();
    return result;
}

void AddProperty(const PropertyArea& area, ServiceObject* property) {
    static constexpr const char* kFunction = "QF::AddProperty";
    if (!SODetails::hasMethod(area.area.get(), kAddPropertySlot)) return;
    if (!property) ThrowServiceObjectException(SOImpl::kBadArgument, u"Bad param", kFunction);
    auto& ops = *SODetails::methods<PropertyAreaTable>(area.area.get());
    const uint32_t code = ops.AddProperty(area.area.get(), property);
    if (code != SOImpl::kSuccess)
        ThrowServiceObjectException(code, u"Unspecified Error!", kFunction);
}

// ---- WeakServiceObject ------------------------------------------------------------------------

WeakServiceObject::WeakServiceObject(ServiceObject* so) {
    if (!so || !SODetails::header(so)->base.GetWeakReference) return;
    SODetails::WeakReference* weak = nullptr;
    if (SODetails::header(so)->base.GetWeakReference(so, &weak) != 0) {
        if (weak) weak->ops->Release(weak);
        return;
    }
    weak_ = weak;
}

WeakServiceObject::WeakServiceObject(const WeakServiceObject& other) : weak_(other.weak_) {
    if (weak_) weak_->ops->AddRef(weak_);
}

WeakServiceObject::WeakServiceObject(WeakServiceObject&& other) noexcept
    : weak_(std::exchange(other.weak_, nullptr)) {}

WeakServiceObject& WeakServiceObject::operator=(WeakServiceObject other) noexcept {
    std::swap(weak_, other.weak_);
    return *this;
}

WeakServiceObject::~WeakServiceObject() {
    if (weak_) weak_->ops->Release(weak_);
}

BasicServiceObjectPtr<> WeakServiceObject::Lock() const {
    ServiceObject* so = nullptr;
    if (!weak_ || weak_->ops->Lock(weak_, &so) != 0) return {};
    return BasicServiceObjectPtr<>::adopt(so);
}

} // namespace QF
