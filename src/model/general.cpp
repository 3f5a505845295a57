#include "model/general.h"

#include <array>
#include <cstdint>

#include "model/config_model.h"
#include "model/value_rules.h"

namespace {

constexpr const char* kPowerOffUnsupportedText = "poweroff feature not supported by this hardware";
constexpr const char* kGatewayVersionFormat = "%u.%u.%u";

// The KL15 power-down switch of boards that have one. This hardware has none, so both report
// failure without doing anything.
[[nodiscard]] int enableKl15PowerDown() {
    return -1;
}
[[nodiscard]] int disableKl15PowerDown() {
    return -1;
}

// A text of the General record, as it stands.
template <auto Field>
int readText(AnswerMessage& answer, const ConfigModel& model) {
    answerCopy(answer, model.general.*Field);
    return 0;
}

int readKl15(AnswerMessage& answer, const ConfigModel& model) {
    answerText(answer, "%d", model.general.KL15pwdn == 1 ? 1 : 0);
    return 0;
}

int readGatewayVersion(AnswerMessage& answer, const ConfigModel& model) {
    const uint16_t* version = model.forwardDefaults.version;
    answerText(answer, kGatewayVersionFormat, version[0], version[1], version[2]);
    return 0;
}

int readOnly(const RequestMessage&, AnswerMessage& answer, ConfigModel&) {
    return failText(answer, kReadOnlyText);
}

int writeDescription(const RequestMessage& request, AnswerMessage& answer, ConfigModel& model) {
    if constexpr (kHardened) {
        if (const char* refusal = rules::checkStoredText(request.da))
            return failText(answer, refusal);
    }
    copyText(model.general.Description, request.da, kDataSize);
    model.changed.mark(flag::General);
    return 0;
}

// Power down can only be switched off on this hardware. The write fails all the same and leaves
// the group unmarked, so the cleared byte reaches the file only with another General change.
int writeKl15(const RequestMessage&, AnswerMessage& answer, ConfigModel& model) {
    model.general.KL15pwdn = 0;
    return failText(answer, kPowerOffUnsupportedText);
}

struct GeneralParam {
    int (*read)(AnswerMessage& answer, const ConfigModel& model);  // nullptr: fails, empty da
    SetHandler write;  // nullptr: the unknown-parameter text
};

// Indexed by f2. "Lighttpd port" (7) has a name and a file key but is not served.
constexpr std::array<GeneralParam, 7> kGeneralParams{{
    {readText<&GeneralRecord::bspVersion>, readOnly},
    {readText<&GeneralRecord::hwVersion>, readOnly},
    {readText<&GeneralRecord::orderNumber>, readOnly},
    {readText<&GeneralRecord::serialNumber>, readOnly},
    {readText<&GeneralRecord::Description>, writeDescription},
    {readKl15, writeKl15},
    {readGatewayVersion, nullptr},
}};

}  // namespace

int readGeneral(const RequestMessage& request, AnswerMessage& answer, ConfigModel& model) {
    if (request.f2 >= kGeneralParams.size() || kGeneralParams[request.f2].read == nullptr)
        return -1;
    return kGeneralParams[request.f2].read(answer, model);
}

int setGeneral(const RequestMessage& request, AnswerMessage& answer, ConfigModel& model) {
    // The text names f3 although f2 is what is wrong; clients have always seen it so.
    if (request.f2 >= kGeneralParams.size() || kGeneralParams[request.f2].write == nullptr)
        return failUnknownSubidxII(request, answer);
    return kGeneralParams[request.f2].write(request, answer, model);
}

int applyGeneral(unsigned instance, ConfigModel& model, AnswerMessage&) {
    if (instance != 0) return 0;
    // Neither hook can do anything on this hardware; their failure is no failure of the apply.
    if (model.general.KL15pwdn == 1)
        (void)enableKl15PowerDown();
    else
        (void)disableKl15PowerDown();
    return 0;
}
