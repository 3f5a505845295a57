#pragma once
// A simulated gateway driver: answers the control node's and the route nodes' requests from
// state that a test sets, keeps what the daemon hands it, and fails requests on demand.

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "sys/gateway_driver.h"

class SimDriver {
  public:
    static constexpr int kControl = -1;  // node number of "/dev/tarn-gw"; route nodes are 0..7

    struct Request {
        int node;
        unsigned long request;
    };
    struct FilterCall {
        int node;
        unsigned long request;
        std::vector<gw::MaskEntry> entries;  // as many as the list's count says
    };

    // Test controls.
    void setLinkInfo(const gw::CanLinkInfo& info) { linkInfo_[info.name] = info; }
    void failOpen(const std::string& path, int error) { openErrors_[path] = error; }
    void failRequest(unsigned long request, int error) { requestErrors_[request] = error; }
    void clearFailures() {
        openErrors_.clear();
        requestErrors_.clear();
    }

    // What the daemon did.
    std::vector<Request> requests;
    std::vector<FilterCall> filterCalls;
    std::vector<std::string> opened;  // paths, in order
    int badCloses = 0;                // closes of a descriptor that was not open
    int openDescriptors() const { return static_cast<int>(descriptors_.size()); }

    // The seam's calls.
    int open(const std::string& path);
    int ioctl(int fd, unsigned long request, void* argument);
    int close(int fd);

  private:
    std::map<std::string, gw::CanLinkInfo> linkInfo_;
    std::map<std::string, int> openErrors_;
    std::map<unsigned long, int> requestErrors_;
    std::map<int, int> descriptors_;  // descriptor -> node
    int nextDescriptor_ = 1000;
};
