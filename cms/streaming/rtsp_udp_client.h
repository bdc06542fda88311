// RTSPUDPClient: the RTP or RTCP socket of one stream.
#pragma once

#include "cms/net/udp_client.h"
#include "cms/runtime/api.h"

// A UDP client on a socket that was bound beforehand, together with its partner of the port pair.
class CMS_API RTSPUDPClient final : public UDPClientBase {
 public:
  ~RTSPUDPClient() override;

  // Takes over the bound socket: it is closed with this client. Call before OnStartUDPClient.
  void SetClientSocket(int socket) { AdoptSocket(socket); }
  using UDPClientBase::SetRemote;
};
