#include "peer_tracker.h"

#include <array>
#include <cstdlib>
#include <opencv2/tracking.hpp>
#include <opencv2/tracking/tracking_legacy.hpp>
#include <sstream>

#include "bad_input.h"

namespace ostrel_host {
namespace {

struct Peer {
  const char* name;
  cv::Ptr<cv::Tracker> (*make)();
};

const std::array<Peer, 4> kPeers{{
    {"csrt", []() -> cv::Ptr<cv::Tracker> { return cv::TrackerCSRT::create(); }},
    {"kcf", []() -> cv::Ptr<cv::Tracker> { return cv::TrackerKCF::create(); }},
    {"mosse", [] { return cv::legacy::upgradeTrackingAPI(cv::legacy::TrackerMOSSE::create()); }},
    {"mil", []() -> cv::Ptr<cv::Tracker> { return cv::TrackerMIL::create(); }},
}};

const Peer* find_peer(const std::string& name) {
  for (const Peer& peer : kPeers) {
    if (name == peer.name) return &peer;
  }
  return nullptr;
}

}  // namespace

std::vector<std::string> parse_peers(const std::string& list) {
  std::vector<std::string> names;
  std::istringstream stream(list);
  for (std::string name; std::getline(stream, name, ',');) {
    if (find_peer(name) == nullptr) {
      throw BadInput("'" + name + "' is no peer: csrt, kcf, mosse and mil are known");
    }
    names.push_back(name);
  }
  return names;
}

cv::Ptr<cv::Tracker> make_peer(const std::string& name) {
  return find_peer(name)->make();
}

void seed_peers(unsigned seed) {
  cv::setRNGSeed(static_cast<int>(seed));
  std::srand(seed);
}

}  // namespace ostrel_host
