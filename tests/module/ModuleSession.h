// Fixtures of the module tests that run the module in the reference host: the host with the
// module loaded, and a document in a view whose events are given in page points.
#pragma once

#include "PdReaders.h"

#include "kr/KRRuntime.h"
#include "qfhost/Host.h"
#include "qfhost/ModuleLoader.h"

#include <gtest/gtest.h>

#include <string>

namespace pdreaders {

inline uint32_t atom(const char* name) {
    uint32_t id = 0;
    EXPECT_EQ(KRGetAtomFromString(name, &id), 0u) << name;
    return id;
}

inline void expectRect(const PDRect& r, float left, float bottom, float right, float top,
                       const std::string& what = "") {
    EXPECT_NEAR(r.left, left, 0.01) << what;
    EXPECT_NEAR(r.bottom, bottom, 0.01) << what;
    EXPECT_NEAR(r.right, right, 0.01) << what;
    EXPECT_NEAR(r.top, top, 0.01) << what;
}

// A host with the forms module loaded through its exports.
class ModuleInHost : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_NO_THROW(loader.load(QF_FORMS_MODULE_PATH)); }
    void TearDown() override {
        host.commands().clear();
        host.releaseModuleObjects();
    }

    // The text of the failure record the module left for this thread, "" without one.
    std::u16string failureText() {
        SODetails::ErrorInfo info{};
        SODetails::ServiceObject* so = loader.initService();
        if (SODetails::header(so)->base.GetLastErrorInfo(so, &info, nullptr) != 0) return u"";
        return info.message ? info.message : u"";
    }

    qfhost::Host host;
    qfhost::ModuleLoader loader{&host};
};

// And a new three-page document (page 1 turned by 90 degrees, page 2 left empty) in a view
// at zoom 1.
class ModuleSession : public ModuleInHost {
  protected:
    void SetUp() override {
        ModuleInHost::SetUp();
        ASSERT_EQ(PDPageSetRotate(pageOf(pd(), 1).get(), 90), PD_OK);
    }

    PDDoc pd() { return document->pdDoc(); }

    // One event at page point (x, y) of page: the tool's result, *handled its answer.
    uint32_t send(uint32_t type, uint32_t code, uint32_t page, float x, float y,
                  bool* handled = nullptr, uint32_t modifiers = 0) {
        const auto at = view->pageToView(page, x, y);
        return view->sendEvent({type, code, at[0], at[1], modifiers}, handled);
    }
    // A press at (x0, y0), two moves, the release at (x1, y1): the release's result.
    uint32_t drag(uint32_t page, float x0, float y0, float x1, float y1, uint32_t modifiers = 0) {
        send(QF::kEventButtonDown, QF::kButtonLeft, page, x0, y0, nullptr, modifiers);
        send(QF::kEventMove, 0, page, (x0 + x1) / 2, (y0 + y1) / 2, nullptr, modifiers);
        send(QF::kEventMove, 0, page, x1, y1, nullptr, modifiers);
        return send(QF::kEventButtonUp, QF::kButtonLeft, page, x1, y1, nullptr, modifiers);
    }
    // The row name of the active tool's sheet, read again.
    qfhost::ObjectPtr sheet(const char16_t* name) {
        EXPECT_EQ(view->refreshToolProperties(), 0u);
        return host.properties().find(u"ToolArea", name);
    }

    qfhost::Document* document = &host.newDocument(3, 612, 792);
    qfhost::View* view = &host.openView(*document);
};

} // namespace pdreaders
