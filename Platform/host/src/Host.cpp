#include "qfhost/Host.h"

#include "qfhost/HostError.h"

#include "kr/KRRuntime.h"
#include "service-common/ServiceProviderApi.h"

namespace qfhost {

namespace {

struct ServiceKind {
    const char* name;
    ServiceObject* (*create)(Host& host);
};

// In the order of HostService.
template <ServiceObject* (*Create)()>
ServiceObject* plain(Host&) {
    return Create();
}

const ServiceKind kKinds[kHostServiceCount] = {
    {TasksRepository::kName, &plain<&TasksRepository::create>},
    {CommandsManager::kName, &plain<&CommandsManager::create>},
    {AnnotEditService::kName, &AnnotEditService::create},
    {EditService::kName, &plain<&EditService::create>},
    {EditObjectPicker::kName, &plain<&EditObjectPicker::create>},
    {EditModuleService::kName, &plain<&EditModuleService::create>},
    {PDAnnotService::kName, &plain<&PDAnnotService::create>},
    {PropertiesContext::kName, &plain<&PropertiesContext::create>},
    {AnnotPropertiesFactory::kName, &AnnotPropertiesFactory::create},
    {StringService::kName, &plain<&StringService::create>},
    {UserSettings::kName, &plain<&UserSettings::create>},
    {AnnotSelection::kName, &AnnotSelection::create},
    {CompositeEditObjectFactory::kName, &plain<&CompositeEditObjectFactory::create>},
    {GraphicsService::kName, &plain<&GraphicsService::create>},
    {AnnotPropertiesValidate::kName, &AnnotPropertiesValidate::create},
    {WinServices::kName, &plain<&WinServices::create>},
};

// The provider's factory for a host service: context is the service's block; each query
// gets a reference of its own.
ServiceObject* provide(void* context) {
    auto* so = static_cast<ServiceObject*>(context);
    SODetails::addRef(so);
    return so;
}

size_t index(HostService s) { return static_cast<size_t>(s); }

}  // namespace

Host::Host() {
    for (size_t i = 0; i < kHostServiceCount; ++i) {
        uint32_t rc = KRGetAtomFromString(kKinds[i].name, &atoms_[i]);
        if (rc != KR_OK) {
            throw HostError(codes::kHostFailure,
                            std::string("no atom for ") + kKinds[i].name);
        }
        objects_[i] = ObjectPtr::adopt(kKinds[i].create(*this));
    }
    if (KRGetAtomFromString(Document::kName, &documentAtom_) != KR_OK) {
        throw HostError(codes::kHostFailure, std::string("no atom for ") + Document::kName);
    }
    if (KRGetAtomFromString(View::kName, &viewAtom_) != KR_OK) {
        throw HostError(codes::kHostFailure, std::string("no atom for ") + View::kName);
    }
    commands().setUndoLevels([this] {
        const auto value = settings().get(u"Editing/Undo levels");
        const auto* levels = value ? std::get_if<int64_t>(&*value) : nullptr;
        return levels && *levels > 0 ? static_cast<size_t>(*levels) : size_t{0};
    });
    for (size_t i = 0; i < kHostServiceCount; ++i) {
        uint32_t rc = ServiceProviderRegisterService(atoms_[i], &provide, objects_[i].get());
        if (rc != codes::kOk) {
            for (size_t j = 0; j < i; ++j) ServiceProviderRegisterService(atoms_[j], nullptr, nullptr);
            throw HostError(rc, std::string("the service provider refused ") + kKinds[i].name);
        }
    }
}

Host::~Host() {
    commands().setUndoLevels(nullptr);  // a module may hold the manager longer
    for (size_t i = 0; i < kHostServiceCount; ++i) {
        ServiceProviderRegisterService(atoms_[i], nullptr, nullptr);
    }
    setCurrentView(nullptr);
    setCurrentDocument(nullptr);
    releaseModuleObjects();
    views_.clear();
    documents_.clear();  // after the commands and views that refer to them
    tasks().tools().clear();
    commands().factories().clear();
    annotEdit().editSelectFactories().clear();
    edit().selectEditObjectServices().clear();
    picker().editObjectFactories().clear();
    picker().compositeItems().clear();
    editModules().selectionFactories().clear();
    pdAnnots().handlerFactories().clear();
    // objects_ drop the host's own references.
}

TasksRepository& Host::tasks() {
    return TasksRepository::of(object(HostService::TasksRepository));
}
CommandsManager& Host::commands() {
    return CommandsManager::of(object(HostService::CommandsManager));
}
AnnotEditService& Host::annotEdit() {
    return AnnotEditService::of(object(HostService::QFService));
}
EditService& Host::edit() { return EditService::of(object(HostService::QFEditService)); }
EditObjectPicker& Host::picker() {
    return EditObjectPicker::of(object(HostService::QFEditObjectPickerFactory));
}
EditModuleService& Host::editModules() {
    return EditModuleService::of(object(HostService::QFEditModuleService));
}
PDAnnotService& Host::pdAnnots() {
    return PDAnnotService::of(object(HostService::QFPDAnnotService));
}
PropertiesContext& Host::properties() {
    return PropertiesContext::of(object(HostService::QFPropertiesContext));
}
AnnotPropertiesFactory& Host::annotProperties() {
    return AnnotPropertiesFactory::of(object(HostService::QFAnnotPropertiesFactory));
}
StringService& Host::strings() { return StringService::of(object(HostService::QFStringService)); }
UserSettings& Host::settings() { return UserSettings::of(object(HostService::QFUserSettings)); }
AnnotSelection& Host::selection() {
    return AnnotSelection::of(object(HostService::QFAnnotEditService));
}
GraphicsService& Host::graphics() {
    return GraphicsService::of(object(HostService::GraphicsService));
}
WinServices& Host::winServices() {
    return WinServices::of(object(HostService::KRWinServices));
}
AnnotPropertiesValidate& Host::validation() {
    return AnnotPropertiesValidate::of(object(HostService::QFAnnotPropertiesValidate));
}

const char* Host::nameOf(HostService s) { return kKinds[index(s)].name; }
uint32_t Host::atomOf(HostService s) const { return atoms_[index(s)]; }
ServiceObject* Host::object(HostService s) const { return objects_[index(s)].get(); }
int32_t Host::refCount(HostService s) const {
    ServiceObject* so = object(s);
    return SODetails::header(so)->base.GetRefCount(so);
}

void Host::releaseModuleObjects() {
    for (auto& view : views_) view->deactivateTool();
    tasks().deactivate();
    selection().clear();
    properties().clear();
    commands().clear();
}

size_t Host::registeredObjects() const {
    auto& picker = EditObjectPicker::of(object(HostService::QFEditObjectPickerFactory));
    return TasksRepository::of(object(HostService::TasksRepository)).tools().size() +
           CommandsManager::of(object(HostService::CommandsManager)).factories().size() +
           AnnotEditService::of(object(HostService::QFService)).editSelectFactories().size() +
           EditService::of(object(HostService::QFEditService)).selectEditObjectServices().size() +
           picker.editObjectFactories().size() + picker.compositeItems().size() +
           EditModuleService::of(object(HostService::QFEditModuleService))
               .selectionFactories()
               .size() +
           PDAnnotService::of(object(HostService::QFPDAnnotService)).handlerFactories().size();
}

Document& Host::keep(std::unique_ptr<Document> doc) {
    documents_.push_back(std::move(doc));
    Document& kept = *documents_.back();
    setCurrentDocument(&kept);
    return kept;
}

Document& Host::openDocument(const std::string& path, const std::u16string& password) {
    return keep(Document::open(path, this, password));
}

Document& Host::newDocument(uint32_t pages, float width, float height) {
    return keep(Document::create(pages, width, height, this));
}

Document& Host::adoptDocument(PDDoc doc) { return keep(Document::fromPDDoc(doc, this)); }

void Host::closeDocument(Document& doc) {
    for (size_t i = views_.size(); i-- > 0;) {
        if (&views_[i]->document() == &doc) closeView(*views_[i]);
    }
    if (current_ == &doc) setCurrentDocument(nullptr);
    for (auto it = documents_.begin(); it != documents_.end(); ++it) {
        if (it->get() == &doc) {
            std::unique_ptr<Document> closing = std::move(*it);
            documents_.erase(it);
            return;  // closing closes it
        }
    }
}

void Host::setCurrentDocument(Document* doc) {
    current_ = doc;
    if (doc) {
        ServiceProviderRegisterService(documentAtom_, &provide, doc->object());
    } else {
        ServiceProviderRegisterService(documentAtom_, nullptr, nullptr);
    }
}

View& Host::openView(Document& doc) {
    views_.push_back(std::make_unique<View>(*this, doc));
    View& view = *views_.back();
    setCurrentDocument(&doc);
    setCurrentView(&view);
    return view;
}

void Host::closeView(View& view) {
    if (selection().view() == &view) selection().clear();
    if (currentView_ == &view) setCurrentView(nullptr);
    for (auto it = views_.begin(); it != views_.end(); ++it) {
        if (it->get() == &view) {
            std::unique_ptr<View> closing = std::move(*it);
            views_.erase(it);
            return;
        }
    }
}

void Host::setCurrentView(View* view) {
    currentView_ = view;
    if (view) {
        ServiceProviderRegisterService(viewAtom_, &provide, view->object());
    } else {
        ServiceProviderRegisterService(viewAtom_, nullptr, nullptr);
    }
}

}  // namespace qfhost
