// Widgets as JSON text and back. The widget record holds the widget's geometry, look,
// field data and every action (JsonUtility::ActionSerialization); one serializer per field
// type writes and reads the keys of its type. Copy writes the compact JSON text of one
// widget; paste builds a new field (named by pdfcore, not from the record) and an unplaced
// widget from a text. Everything runs on the host's user-interface thread.
#pragma once

#include "qf/internal/AnnotClipboardUtils"
#include "qf/ServiceObject.h"

#include <memory>
#include <string>

class WidgetEditObject;

namespace Qf_WidgetClipboard {

using JsonUtility::ActionSerialization::Json;

// What one field type adds to the record, and the common part of every record.
class IWidgetSerializer {
  public:
    IWidgetSerializer() = default;
    IWidgetSerializer(const IWidgetSerializer&) = delete;
    IWidgetSerializer& operator=(const IWidgetSerializer&) = delete;
    virtual ~IWidgetSerializer() = default;

    // Fills record from widget (of the document of documentService).
    virtual void Serialize(SODetails::ServiceObject* documentService, PDAnnot widget,
                           Json& record) = 0;
    // A new widget (and field) in the document of documentService from record.
    virtual QF::PDHandlePtr Deserialize(SODetails::ServiceObject* documentService,
                                        const Json& record) = 0;
    virtual bool HasButtonAction() const = 0;
    virtual void ReadButtonAction(PDDoc doc, const Json& record, PDAnnot widget) = 0;
    virtual void WriteButtonAction(PDDoc doc, Json& record, PDAnnot widget) = 0;
    // A new field without a name, of the flags, and its widget of rect (not on a page).
    virtual void CreateWidget(PDDoc doc, uint32_t flags, const PDRect& rect,
                              QF::PDHandlePtr& widget, QF::PDHandlePtr& field) = 0;
    virtual void ReadTypeSpecific(PDDoc doc, const Json& record, PDAnnot widget,
                                  PDField field) = 0;
    virtual void WriteTypeSpecific(PDDoc doc, Json& record, PDAnnot widget, PDField field) = 0;
};

// The keys every widget has: geometry, flags, border, colours, font, tooltip, triggers.
class BaseWidgetSeializer : public IWidgetSerializer {
  public:
    void Serialize(SODetails::ServiceObject* documentService, PDAnnot widget,
                   Json& record) override;
    QF::PDHandlePtr Deserialize(SODetails::ServiceObject* documentService,
                                const Json& record) override;
    bool HasButtonAction() const override { return false; }
    void ReadButtonAction(PDDoc, const Json&, PDAnnot) override {}
    void WriteButtonAction(PDDoc, Json&, PDAnnot) override {}

  protected:
    // Sets action (may be null: the trigger is cleared) through setter on target; a
    // failing setter throws "Unspecified Error!" with pdfcore's code.
    static void _SetWidgetAction(PDResult (*setter)(PDHandle, PDAction), PDHandle target,
                                 PDAction action);
};

// The serializer of a field-type atom (74 Btn, 536 Tx, 93 Ch, 468 Sig); null for others.
std::shared_ptr<IWidgetSerializer> SerializerFor(int64_t fieldType);

} // namespace Qf_WidgetClipboard

namespace WidgetClipboard {

// The record of widget as compact JSON text into *out; false (and *out untouched) for an
// annotation that is not a widget or a field type without a serializer. A null out throws
// 3 "Bad param".
bool Copy(SODetails::ServiceObject* documentService, PDAnnot widget, std::string* out);

// A new widget (one reference) in the document of documentService from a record's text;
// null when the record's field type has no serializer. Throws the JSON library's errors for
// text that is no JSON object, and what building the widget throws.
QF::PDHandlePtr Paste(SODetails::ServiceObject* documentService, const std::string& text);

enum class Target { System, Private };

// Puts the selected widget's text on the system or the private clipboard.
void Copy(const std::shared_ptr<WidgetEditObject>& widget, Target target);

// The host's copy and paste of a widget annotation through "QFDataObject"s.
uint32_t CopyToData(SODetails::ServiceObject* view, uint64_t pageIndex, PDAnnot annot,
                    SODetails::ServiceObject** outData);
uint32_t PasteFromData(SODetails::ServiceObject* view, uint64_t pageIndex,
                       SODetails::ServiceObject* data, PDAnnot* outAnnot);

} // namespace WidgetClipboard
