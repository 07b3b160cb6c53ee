// The host: owns one instance of every host service and makes each known to the service
// provider under the atom of its name for as long as it lives. One Host per process at a
// time (the provider has one entry per name).
#pragma once

#include "qfhost/Clipboard.h"
#include "qfhost/Document.h"
#include "qfhost/Graphics.h"
#include "qfhost/Selection.h"
#include "qfhost/Services.h"
#include "qfhost/UiServices.h"
#include "qfhost/View.h"

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace qfhost {

enum class HostService {
    TasksRepository,
    CommandsManager,
    QFService,
    QFEditService,
    QFEditObjectPickerFactory,
    QFEditModuleService,
    QFPDAnnotService,
    QFPropertiesContext,
    QFAnnotPropertiesFactory,
    QFStringService,
    QFUserSettings,
    QFAnnotEditService,
    QFCompositeEditObjectFactory,
    GraphicsService,
    QFAnnotPropertiesValidate,
    KRWinServices,
};
inline constexpr size_t kHostServiceCount = 16;

class QFHOST_API Host {
public:
    // Throws HostError when an atom cannot be made or the provider refuses an entry.
    Host();
    // Withdraws the services from the provider, drops the objects of modules that the
    // services still hold, then the host's own references.
    ~Host();
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

    TasksRepository& tasks();
    CommandsManager& commands();
    AnnotEditService& annotEdit();
    EditService& edit();
    EditObjectPicker& picker();
    EditModuleService& editModules();
    PDAnnotService& pdAnnots();
    PropertiesContext& properties();
    AnnotPropertiesFactory& annotProperties();
    StringService& strings();
    UserSettings& settings();
    AnnotSelection& selection();
    GraphicsService& graphics();
    AnnotPropertiesValidate& validation();
    WinServices& winServices();

    static const char* nameOf(HostService s);
    uint32_t atomOf(HostService s) const;
    // The block of service s (borrowed; the host keeps its reference).
    ServiceObject* object(HostService s) const;
    // Its reference count: 1 while nobody but the host holds it.
    int32_t refCount(HostService s) const;

    // Drops what the host holds of a module beside registrations: the active tools of all
    // views, the selection, the properties context's contents and the undo and redo
    // stacks. Call it before the module is unloaded.
    void releaseModuleObjects();
    // How many objects all registries hold together.
    size_t registeredObjects() const;

    // Open documents, owned by the host and tied to its commands manager. The document
    // opened or made last becomes the current one. Each throws HostError as Document does.
    Document& openDocument(const std::string& path, const std::u16string& password = {});
    Document& newDocument(uint32_t pages, float width, float height);
    Document& adoptDocument(PDDoc doc);
    // Closes and destroys doc (a document of this host) and its views. Commands of it that are still on
    // the undo or redo stacks stay there and answer kDocumentClosed.
    void closeDocument(Document& doc);
    size_t documentCount() const { return documents_.size(); }
    // The current document, registered with the service provider under "QFDocument"
    // (null: none, and nothing registered under that name).
    Document* currentDocument() const { return current_; }
    void setCurrentDocument(Document* doc);

    // A new view of doc (a document of this host), which becomes the current view,
    // registered with the service provider under "QFDocumentView", and makes doc current.
    View& openView(Document& doc);
    // Destroys view (a view of this host).
    void closeView(View& view);
    View* currentView() const { return currentView_; }

private:
    std::array<ObjectPtr, kHostServiceCount> objects_;
    std::array<uint32_t, kHostServiceCount> atoms_{};
    Document& keep(std::unique_ptr<Document> doc);
    std::vector<std::unique_ptr<Document>> documents_;
    Document* current_ = nullptr;
    uint32_t documentAtom_ = 0;
    std::vector<std::unique_ptr<View>> views_;
    View* currentView_ = nullptr;
    uint32_t viewAtom_ = 0;
    void setCurrentView(View* view);
};

}  // namespace qfhost
