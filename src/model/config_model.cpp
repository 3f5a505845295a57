#include "model/config_model.h"

#include <cstdlib>
#include <cstring>

void resetModel(ConfigModel& model) {
    std::memset(&model, 0, sizeof model);
    model.session.noSessionOpen = 1;
    model.previousWlanMode = kNoWlanMode;
    model.stamps = {kNeverRefreshed, kNeverRefreshed, kNeverRefreshed,
                    kNeverRefreshed, kNeverRefreshed, 0};
}

ConfigModel* allocateModel() {
    auto* model = static_cast<ConfigModel*>(std::calloc(1, sizeof(ConfigModel)));
    if (model != nullptr) resetModel(*model);
    return model;
}

void releaseModel(ConfigModel*& model) {
    std::free(model);
    model = nullptr;
}

void markForStartApply(ConfigModel& m) {
    m.changed.mark(flag::General);
    m.changed.mark(flag::Host);
    m.changed.mark(flag::Gui);
    m.changed.mark(flag::Lan, 0);
    m.changed.mark(flag::Lan, 1);
    for (unsigned i = 0; i < kCanRecords; ++i)
        m.changed.mark(flag::Can, i);
    m.changed.mark(flag::Route, 0);
    for (unsigned i = 0; i <= kMaxFilters; ++i)
        m.changed.mark(flag::Filter, i);
    for (unsigned r = 0; r < kRoutesServed; ++r) {
        if (m.routes[r].RouteFlags & kRouteActive) m.changed.mark(flag::Route, r + 1);
    }
}
