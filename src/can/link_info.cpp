#include "can/link_info.h"

#include <fcntl.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "model/config_model.h"
#include "sys/gateway_driver.h"
#include "sys/log.h"
#include "sys/system.h"

namespace {

constexpr const char* kInterfaceNameFormat = "%s%d";
constexpr const char* kLinkInfoFailedFormat = "%s: unable to get %s link info (errno=%d)\n";

void copyLiveState(const gw::CanLinkInfo& info, CanInterface& can) {
    can.Active = (info.flags & gw::kCanLinkUp) != 0;
    can.Loopback = (info.ctrlMode & gw::kCtrlLoopback) != 0;
    can.Listenonly = (info.ctrlMode & gw::kCtrlListenOnly) != 0;
    can.Triplesampling = (info.ctrlMode & gw::kCtrlTripleSampling) != 0;
    can.CanState = static_cast<uint8_t>(info.state);
    can.RealBaudrate = info.bitrate;
    can.RealSamplepoint = info.samplePoint;
    can.timing = {info.tq, info.propSeg, info.phaseSeg1, info.phaseSeg2, info.sjw, info.brp};
}

}  // namespace

int refreshCanInformation(unsigned index, ConfigModel& model) {
    if (index >= kCanServed) return -1;
    CanInterface& can = model.can[index];

    sys::System& system = sys::current();
    const int fd = system.openNode(gw::kControlNode, O_RDWR);
    if (fd < 0) return -1;

    gw::CanLinkInfo info{};
    std::snprintf(info.name, sizeof info.name, kInterfaceNameFormat, can.BaseName,
                  static_cast<int>(index));
    char name[sizeof info.name];  // the driver may overwrite the record even when it refuses
    std::memcpy(name, info.name, sizeof name);
    const int result = system.ioctlNode(fd, gw::kGetCanLinkInfo, &info);
    const int error = errno;
    // The node is opened anew for every query; closing it keeps descriptors from piling up.
    (void)system.closeNode(fd);  // nothing to do about a failed close of a node we only read
    if (result < 0) {
        sys::logError(kLinkInfoFailedFormat, __func__, name, error);
        return 0;
    }
    copyLiveState(info, can);
    return 0;
}
