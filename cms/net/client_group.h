// EachClientGroupTable, which pair of I/O threads serves which client.
#pragma once

#include <memory>

#include "cms/runtime/api.h"

class EachClientManager;
namespace cms {
class RTCPStep;
}  // namespace cms
class TCPClientBase;
class UDPClientBase;

// The process's groups. A group is a pair of threads, one that receives and one that sends; it is
// made at the first registration under its key and lives until StopEachClientNBManager. It serves
// its first 64 distinct sockets in the order of registration, TCP before UDP; later ones wait until
// a place is free, so callers spread their clients over keys.
//
// Members may be called from any thread, also from a client's own callback; for one client, by one
// thread at a time, except that a callback may unregister its client while the owner does.
//
// No deadlock between an owner that unregisters and a callback that does: the table's lock is never
// held while a group's locks are taken or a thread is started or stopped (the groups are kept alive
// by shared pointers meanwhile), and of a group's two locks the receive thread's always comes
// first. Callbacks run with it held, receive steps as well as RTCP steps; send steps run under the
// send thread's lock alone and call nobody. A callback may therefore register and unregister
// clients of its own group. One that unregisters a client of another group waits for that group's
// running callback, so two groups whose callbacks did that to each other would wait for ever.
class CMS_API EachClientGroupTable {
 public:
  // The one table. It is never destroyed: clients may be, after main has returned.
  static EachClientGroupTable& Instance();

  // Has the group serve the client, which stays its owner's. Registering again changes nothing but
  // has the client's socket looked up anew; under another key the client moves there. 1, or 0 when
  // the process is out of threads or descriptors. The first registration of a group takes 100 ms
  // unless it was prepared.
  int Register(TCPClientBase* client, int group);
  int Register(UDPClientBase* client, int group);
  int Register(cms::RTCPStep* step, int group);

  // Makes the group ready, without waiting; what fails fails again at a registration.
  void Prepare(int group);

  // Returns when no step of the client runs any more (unless called from inside that step, which
  // then ends at the callback's return): its owner may free it. That holds as well for a client
  // whose own callback or step has unregistered it, or moved it to another key, and still runs.
  void Unregister(TCPClientBase* client);
  void Unregister(UDPClientBase* client);
  void Unregister(cms::RTCPStep* step);

  // Ends all threads of all groups and forgets all clients. Registrations made meanwhile or later
  // start new groups. A group whose callback does not return within 10 seconds is left to itself;
  // owners that unregister its clients wait for it as ever. Not from a callback.
  void Stop();

  // The group under that key, nullptr when there is none.
  std::shared_ptr<EachClientManager> Find(int group);

 private:
  class CMS_HIDDEN Impl;
  EachClientGroupTable();
  ~EachClientGroupTable() = delete;

  const std::unique_ptr<Impl> impl_;
};
