#include "fleet/fleet_figures.h"

#include <algorithm>
#include <sstream>

namespace cms::fleet {
namespace {

class MetricsText {
 public:
  template <typename Value>
  void Add(const char* name, const char* type, const char* help, Value value) {
    Head(name, type, help);
    text_ << "orvanta_fleet_" << name << ' ' << value << '\n';
  }
  void Head(const char* name, const char* type, const char* help) {
    text_ << "# HELP orvanta_fleet_" << name << ' ' << help << "\n# TYPE orvanta_fleet_" << name
          << ' ' << type << '\n';
  }
  std::ostringstream& Text() { return text_; }

 private:
  std::ostringstream text_;
};

}  // namespace

std::string FleetMetrics(const FleetFigures& figures) {
  const auto up = std::count_if(figures.cameras.begin(), figures.cameras.end(),
                                [](const HeldCamera& camera) { return camera.up; });
  MetricsText text;
  text.Add("cameras_recording", "gauge", "Cameras of which frames are recorded now.", up);
  text.Add("cameras_held", "gauge", "Cameras that are this recorder's.", figures.cameras.size());
  text.Add("capacity_cameras", "gauge", "Weights that this recorder may have.", figures.capacity);
  text.Add("lease_confirmed", "gauge", "1: the engine counts this recorder as living.",
           figures.standing == Standing::kConfirmed ? 1 : 0);
  text.Add("lease_remaining_seconds", "gauge", "Until the lease is over.", figures.leaseRemaining);
  text.Add("lease_lost_total", "counter", "Leases that the engine ended.", figures.leaseLost);
  text.Add("claims_won_total", "counter", "Cameras taken.", figures.claimsWon);
  text.Add("claims_refused_total", "counter", "Cameras that somebody else had taken.",
           figures.claimsRefused);
  text.Add("yielded_total", "counter", "Cameras given up to another recorder.", figures.yielded);
  text.Add("unplaced_cameras", "gauge", "Cameras of the fleet without a living holder.",
           figures.unplaced);
  text.Add("moves", "gauge", "Cameras of the fleet that are moving.", figures.moves);
  text.Add("takeover_seconds", "gauge",
           "From the last claim of a dead recorder's camera to its first frame.",
           figures.lastTakeover);
  text.Add("unconfirmed_seconds_total", "counter", "Time without the engine's word.",
           figures.unconfirmedSeconds);
  text.Add("clock_offset_seconds", "gauge",
           "That the clock of another recorder is ahead, of the one that differs most.",
           figures.clockOffset);
  text.Add("engine_requests_total", "counter", "Requests to the engine.", figures.engineRequests);
  text.Add("engine_failures_total", "counter", "Requests that a member did not answer.",
           figures.engineFailures);
  text.Add("write_queue_oldest_seconds", "gauge", "How long something has waited for the disk.",
           figures.oldestWaiting);
  text.Head("camera_up", "gauge", "1: frames of the camera are recorded now.");
  for (const HeldCamera& camera : figures.cameras) {
    text.Text() << "orvanta_fleet_camera_up{camera=\"" << camera.copy.camera << "\",copy=\""
                << camera.copy.copy << "\"} " << (camera.up ? 1 : 0) << '\n';
  }
  return text.Text().str();
}

}  // namespace cms::fleet
