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
