#include "cms/exports/monitor_exports.h"

#include <gmock/gmock.h>
#include <linux/capability.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include "cms/runtime/cpu_usage.h"
#include "tests/support/network_namespace.h"
#include "tests/support/process_state.h"
#include "tests/support/shell.h"
#include "tests/support/wait.h"

using testing::HasSubstr;

namespace {

// What top says of two seconds that have just passed: 100 less "id" and "wa".
double UsageByTop() {
  const std::string output =
      test::RunShell("env LC_ALL=C top -b -n 2 -d 2 | grep Cpu | tail -1").output;
  // "%Cpu(s):  0.0 us, 15.5 sy, 84.1 ni,  0.0 id,  0.4 wa, ..."
  const std::size_t nice = output.find("ni,");
  double idle = 0;
  double waiting = 0;
  if (nice == std::string::npos ||
      std::sscanf(output.c_str() + nice, "ni,%lf id,%lf wa", &idle, &waiting) != 2) {
    ADD_FAILURE() << output;
    return -1;
  }
  return 100 - idle - waiting;
}

// Our span begins a little earlier than top's, and others use the machine too: some tries.
void ExpectSameAsTop() {
  double ours = 0;
  double tops = 0;
  for (int tries = 0; tries < 8; ++tries) {
    ASSERT_EQ(StartGetCpuUsage(), 1);
    tops = UsageByTop();
    ours = GetCpuUsage();
    if (std::abs(ours - tops) <= 3) {
      return;
    }
  }
  ADD_FAILURE() << "we say " << ours << ", top " << tops;
}

bool Shell(const std::string& command) {
  const auto result = test::RunShell(command);
  EXPECT_EQ(result.status, 0) << command << ": " << result.errors;
  return result.status == 0;
}

// For the calling thread alone.
bool DropRawSockets() {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct data[2] = {};
  if (syscall(SYS_capget, &header, data) != 0) {
    return false;
  }
  data[0].effective &= ~(1U << CAP_NET_RAW);
  return syscall(SYS_capset, &header, data) == 0;
}

}  // namespace

TEST(MonitorExports, CpuTimesOfTheKernelsText) {
  const auto times = cms::CpuTimesOf("cpu  10 20 30 400 50 6 7 8 9 10\ncpu0 1 1 1 1\n");
  ASSERT_TRUE(times);
  EXPECT_EQ(times->busy, 10U + 20 + 30 + 6 + 7 + 8);
  EXPECT_EQ(times->all, times->busy + 400 + 50);
  EXPECT_EQ(cms::CpuTimesOf("cpu 1 2 3 4").value().all, 10U) << "an old kernel";
  for (const char* wrong : {"", "cpu", "cpu ", "cpu 1 2 3", "cpu 1 x 3 4", "intr 1 2 3 4",
                            "cpu 1 2 3 99999999999999999999"}) {
    EXPECT_FALSE(cms::CpuTimesOf(wrong)) << wrong;
  }
}

TEST(MonitorExports, CpuUsageIsThatOfTop) {
  StopGetCpuUsage();
  EXPECT_EQ(GetCpuUsage(), -1);
  std::thread([] {}).join();  // a sanitizer that has a thread of its own starts it with the first
  const std::size_t threads = test::RunningThreads();
  ExpectSameAsTop();
  std::atomic<bool> done{false};
  std::vector<std::thread> burners;
  for (unsigned i = 0; i < std::thread::hardware_concurrency(); ++i) {
    burners.emplace_back([&done] {
      while (!done) {
      }
    });
  }
  ExpectSameAsTop();
  EXPECT_GT(GetCpuUsage(), 60) << "all processors burn";
  done = true;
  for (auto& each : burners) {
    each.join();
  }
  EXPECT_TRUE(test::WaitFor([&] { return test::RunningThreads() == threads; }))
      << "no thread of its own";
  StopGetCpuUsage();
  EXPECT_EQ(GetCpuUsage(), -1);
}

TEST(MonitorExports, BrandOfTheProcessor) {
  std::string text;
  const std::string known =
      test::RunShell("sed -n 's/^model name\t: *//p' /proc/cpuinfo | head -1 | sed 's/ *$//'")
          .output;
  const int told = GetCPUString(text);
  EXPECT_EQ(told, text.empty() ? 0 : 1);
  EXPECT_EQ(text, known.substr(0, known.find('\n')));
  EXPECT_EQ(IsAtom(), text.find("Atom") != std::string::npos ? 1 : 0);
}

TEST(MonitorExports, IcmpEchoWithAndWithoutPrivileges) {
  std::string reason;
  const auto body = [] {
    // An address that answers, one that the routes refuse, and a network where nobody is.
    if (!Shell("ip link set lo up && ip route add unreachable 198.51.100.0/24 &&"
               "ip link add dev void0 type veth peer name void1 && ip link set void1 up &&"
               "ip addr add 203.0.113.1/24 dev void0 && ip link set void0 up")) {
      return;
    }
    int microseconds = -1;
    std::string error = "before";
    const auto everywhere = [&](const std::string& how) {
      SCOPED_TRACE(how);
      for (const int payload : {-1, 17, 60'000}) {
        EXPECT_EQ(CMSIcmpEcho("127.0.0.1", payload, 20'000, &microseconds, &error),
                  cms::CMS_ICMP_ECHO_ANSWERED);
        EXPECT_EQ(error, "");
        EXPECT_GT(microseconds, 0);
      }
      EXPECT_EQ(CMSIcmpEcho("198.51.100.7", 16, 20'000, nullptr, &error),
                cms::CMS_ICMP_ECHO_UNREACHABLE);
      EXPECT_THAT(error, HasSubstr("198.51.100.7"));
      EXPECT_EQ(CMSIcmpEcho("203.0.113.9", 16, 50, nullptr, &error), cms::CMS_ICMP_ECHO_TIMED_OUT);
      EXPECT_THAT(error, HasSubstr("within 50 ms"));
    };
    everywhere("raw socket");
    if (!DropRawSockets()) {
      return;
    }
    EXPECT_EQ(CMSIcmpEcho("127.0.0.1", 16, 1000, nullptr, &error),
              cms::CMS_ICMP_ECHO_NOT_PERMITTED);
    EXPECT_THAT(error, HasSubstr("ping_group_range"));
    std::ofstream("/proc/sys/net/ipv4/ping_group_range") << "0 2147483647";
    everywhere("unprivileged socket");
  };
  if (!test::InNetworkNamespace(body, reason)) {
    GTEST_SKIP() << reason;
  }
  std::string error;
  EXPECT_EQ(CMSIcmpEcho("cam.example", 16, 1000, nullptr, &error), cms::CMS_ICMP_ECHO_FAILED);
  EXPECT_THAT(error, HasSubstr("cam.example"));
  EXPECT_EQ(CMSIcmpEcho(nullptr, 16, 1000, nullptr, nullptr), cms::CMS_ICMP_ECHO_FAILED);
}

TEST(MonitorExports, CablesAreToldAsTheyAreAndAsTheyChange) {
  struct Told {
    std::mutex mutex;
    std::map<std::string, std::vector<int>> states;
    std::vector<int> Of(const std::string& name) {
      const std::lock_guard lock(mutex);
      return states[name];
    }
  } told;
  const auto take = [](void* context, const char* name, int connected) {
    auto* const to = static_cast<Told*>(context);
    const std::lock_guard lock(to->mutex);
    to->states[name].push_back(connected);
  };
  std::string reason;
  const auto body = [&] {
    using States = std::vector<int>;
    if (!Shell("ip link set lo up && ip link add dev near type veth peer name far &&"
               "ip link set near up")) {
      return;
    }
    cms::CNetworkCableMonitor* const monitor = StartNetworkCableMonitor(take, &told);
    ASSERT_NE(monitor, nullptr);
    const auto expect = [&told](const char* name, const States& states) {
      EXPECT_TRUE(test::WaitFor([&] { return told.Of(name) == states; }))
          << name << " " << testing::PrintToString(told.Of(name));
    };
    expect("near", {0});
    Shell("ip link set far up");
    expect("near", {0, 1});
    expect("far", {0, 1});
    Shell("ip link set far down && ip link set near mtu 1400");
    expect("near", {0, 1, 0});
    Shell("ip link set far up");
    expect("near", {0, 1, 0, 1});
    // More messages at once than the kernel keeps, while nobody reads: the end is what counts.
    Shell(
        "bash -c 'for i in {1..100}; do echo link add dev a$i type veth peer name b$i; "
        "echo link set a$i up; echo link set b$i up; done | ip -batch -'");
    EXPECT_TRUE(test::WaitFor([&] { return told.Of("a100").size() > 1; }));
    for (int i = 1; i <= 100; ++i) {
      EXPECT_TRUE(test::WaitFor([&] { return told.Of("a" + std::to_string(i)).back() == 1; }));
    }
    Shell("ip link delete near");
    expect("near", {0, 1, 0, 1, 0});
    EXPECT_TRUE(told.Of("lo").empty());
    StopNetworkCableMonitor(monitor);
  };
  if (!test::InNetworkNamespace(body, reason)) {
    GTEST_SKIP() << reason;
  }
  EXPECT_EQ(StartNetworkCableMonitor(nullptr, nullptr), nullptr);
  StopNetworkCableMonitor(nullptr);
}
