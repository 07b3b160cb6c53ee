#include "qfhost/Graphics.h"

#include "qfhost/Host.h"

#include "Thunks.h"

namespace qfhost {

namespace {

using Table = QF::GraphicsServiceTable;

uint32_t notDrawing(ServiceObject*) { return codes::kNotInitialized; }

const Table kTable = {
    &notDrawing,
    &notDrawing,
    [](ServiceObject*, const float*) -> uint32_t { return codes::kNotInitialized; },
    [](ServiceObject*, uint32_t, float, uint32_t) -> uint32_t { return codes::kNotInitialized; },
    [](ServiceObject*, uint32_t) -> uint32_t { return codes::kNotInitialized; },
    [](ServiceObject*, const char16_t*, float) -> uint32_t { return codes::kNotInitialized; },
    [](ServiceObject*, const PDRect*) -> uint32_t { return codes::kNotInitialized; },
    [](ServiceObject*, const float*, uint64_t) -> uint32_t { return codes::kNotInitialized; },
    [](ServiceObject*, const char16_t*, uint64_t, float, float) -> uint32_t {
        return codes::kNotInitialized;
    },
    [](ServiceObject*, const PDRect*, uint32_t) -> uint32_t { return codes::kNotInitialized; },
    [](ServiceObject*, float*) -> uint32_t { return codes::kNotInitialized; },
};

}  // namespace

struct GraphicsService::State {};

ServiceObject* GraphicsService::create() {
    return detail::makeHostObject<Table, GraphicsService>(
        QF::kGraphicsServiceId, kName, detail::kGraphicsServiceImplId, kTable);
}

GraphicsService& GraphicsService::of(ServiceObject* so) {
    return SODetails::implOf<Table, GraphicsService>(so);
}

GraphicsService::GraphicsService() : state_(new State) {}
GraphicsService::~GraphicsService() { delete state_; }

void GraphicsService::beginPage(uint32_t, float) {}
void GraphicsService::endPage() {}
std::vector<GraphicsService::Item> GraphicsService::items(uint32_t) const { return {}; }
void GraphicsService::clear() {}

std::string renderPageSvg(Host&, View&, uint32_t) {
    throw HostError(codes::kNotSupported, "rendering is not there yet");
}

}  // namespace qfhost
