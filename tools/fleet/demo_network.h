// Recorders in network namespaces of their own, so that one of them can be cut off from parts of
// the fleet.
#pragma once

#include <string>
#include <vector>

namespace tools {

// For one thread. Needs root and ip of iproute2; everything made ends with it.
class DemoNetwork {
 public:
  // Throws std::runtime_error where namespaces are not permitted.
  explicit DemoNetwork(int recorders);
  ~DemoNetwork();
  DemoNetwork(const DemoNetwork&) = delete;
  DemoNetwork& operator=(const DemoNetwork&) = delete;

  std::string EngineAddress() const { return net_ + "1"; }
  std::string CameraAddress() const { return net_ + "2"; }
  std::string AddressOf(const std::string& recorder) const;  // "rec1" and so on
  // Put before a command, this has it run where the recorder is.
  std::vector<std::string> Inside(const std::string& recorder) const;
  // From now on nothing reaches these addresses from there.
  void Cut(const std::string& recorder, const std::vector<std::string>& addresses) const;
  void Mend(const std::string& recorder, const std::vector<std::string>& addresses) const;

 private:
  std::string Namespace(const std::string& recorder) const { return name_ + recorder; }
  void Remove() const;

  const int recorders_;
  const std::string name_;  // what everything made begins with
  const std::string net_;   // "10.213.7."
};

}  // namespace tools
