#include "cms/streaming/rtsp_udp_client.h"

RTSPUDPClient::~RTSPUDPClient() {
  OnStopUDPClient();
}
