"""A camera that shares no line with ours: what it answers is written after the examples printed in the ONVIF core,
media, Media2 and PTZ specifications, with their prefixes and their times without a zone, and it takes only requests
whose elements stand in the order of the schemas, with the action that the WSDL names and a signature used once.
"""

import base64
import datetime
import hashlib
import http.server
import threading
import time
import xml.etree.ElementTree as ElementTree

USER = "operator"
PASSWORD = "pa<ss>&word"
SOAP = "{http://www.w3.org/2003/05/soap-envelope}"
WSSE = "{http://docs.oasis-open.org/wss/2004/01/oasis-200401-wss-wssecurity-secext-1.0.xsd}"
WSU = "{http://docs.oasis-open.org/wss/2004/01/oasis-200401-wss-wssecurity-utility-1.0.xsd}"
WSA = "{http://www.w3.org/2005/08/addressing}"
DEVICE = "http://www.onvif.org/ver10/device/wsdl"
EVENTS = "http://www.onvif.org/ver10/events/wsdl"
MEDIA = "http://www.onvif.org/ver10/media/wsdl"
MEDIA2 = "http://www.onvif.org/ver20/media/wsdl"
PTZ = "http://www.onvif.org/ver20/ptz/wsdl"
NOTIFICATION = "http://docs.oasis-open.org/wsn/b-2"
AHEAD = datetime.timedelta(hours=5)  # its clock

# What may stand in an operation, in the order of its schema, and the action where the WSDL names another one than
# NAMESPACE/OPERATION.
OPERATIONS = {
    (DEVICE, "GetServices"): ("IncludeCapability",),
    (DEVICE, "GetCapabilities"): ("Category",),
    (DEVICE, "GetDeviceInformation"): (),
    (DEVICE, "SetSystemDateAndTime"): ("DateTimeType", "DaylightSavings", "TimeZone", "UTCDateTime"),
    (DEVICE, "GetNTP"): (),
    (DEVICE, "SetNTP"): ("FromDHCP", "NTPManual"),
    (DEVICE, "GetUsers"): (),
    (DEVICE, "SetUser"): ("User",),
    (DEVICE, "GetRelayOutputs"): (),
    (DEVICE, "SetRelayOutputState"): ("RelayOutputToken", "LogicalState"),
    (DEVICE, "GetHostname"): (),
    (DEVICE, "SetHostname"): ("Name",),
    (DEVICE, "SystemReboot"): (),
    (MEDIA, "GetProfiles"): (),
    (MEDIA, "GetStreamUri"): ("StreamSetup", "ProfileToken"),
    (MEDIA, "GetSnapshotUri"): ("ProfileToken",),
    (MEDIA, "GetVideoEncoderConfigurationOptions"): ("ConfigurationToken", "ProfileToken"),
    (MEDIA2, "GetProfiles"): ("Token", "Type"),
    (MEDIA2, "GetStreamUri"): ("Protocol", "ProfileToken"),
    (MEDIA2, "GetSnapshotUri"): ("ProfileToken",),
    (MEDIA2, "GetVideoEncoderConfigurationOptions"): ("ConfigurationToken", "ProfileToken"),
    (PTZ, "GetNode"): ("NodeToken",),
    (PTZ, "GetPresets"): ("ProfileToken",),
    (PTZ, "GetStatus"): ("ProfileToken",),
    (PTZ, "GotoPreset"): ("ProfileToken", "PresetToken", "Speed"),
    (PTZ, "ContinuousMove"): ("ProfileToken", "Velocity", "Timeout"),
    (PTZ, "AbsoluteMove"): ("ProfileToken", "Position", "Speed"),
    (PTZ, "RelativeMove"): ("ProfileToken", "Translation", "Speed"),
    (PTZ, "SetPreset"): ("ProfileToken", "PresetName", "PresetToken"),
    (PTZ, "RemovePreset"): ("ProfileToken", "PresetToken"),
    (PTZ, "GotoHomePosition"): ("ProfileToken", "Speed"),
    (PTZ, "SetHomePosition"): ("ProfileToken",),
    (PTZ, "Stop"): ("ProfileToken", "PanTilt", "Zoom"),
    (EVENTS, "CreatePullPointSubscription"): ("Filter", "InitialTerminationTime", "SubscriptionPolicy"),
    (EVENTS, "PullMessages"): ("Timeout", "MessageLimit"),
    (EVENTS, "SetSynchronizationPoint"): (),
    (NOTIFICATION, "Renew"): ("TerminationTime",),
    (NOTIFICATION, "Unsubscribe"): (),
}
# The same of elements inside them.
PARTS = {
    "NTPManual": ("Type", "IPv4Address", "IPv6Address", "DNSname"),
    "User": ("Username", "Password", "UserLevel"),
    "UTCDateTime": ("Time", "Date"),
    "Time": ("Hour", "Minute", "Second"),
    "Date": ("Year", "Month", "Day"),
    "Position": ("PanTilt", "Zoom"),
    "Translation": ("PanTilt", "Zoom"),
    "Velocity": ("PanTilt", "Zoom"),
    "Speed": ("PanTilt", "Zoom"),
    "StreamSetup": ("Stream", "Transport"),
}
ACTIONS = {
    "CreatePullPointSubscription": EVENTS + "/EventPortType/CreatePullPointSubscriptionRequest",
    "PullMessages": EVENTS + "/PullPointSubscription/PullMessagesRequest",
    "SetSynchronizationPoint": EVENTS + "/PullPointSubscription/SetSynchronizationPointRequest",
    "Renew": "http://docs.oasis-open.org/wsn/bw-2/SubscriptionManager/RenewRequest",
    "Unsubscribe": "http://docs.oasis-open.org/wsn/bw-2/SubscriptionManager/UnsubscribeRequest",
}
SNAPSHOT = b"\xff\xd8\xff\xd9"
LIFETIME = 8  # seconds of a subscription

ENVELOPE = """<?xml version='1.0' encoding='utf-8'?>
<soapenv:Envelope xmlns:soapenv="http://www.w3.org/2003/05/soap-envelope" xmlns:tet="http://www.onvif.org/ver10/events/wsdl"
    xmlns:wsnt="http://docs.oasis-open.org/wsn/b-2" xmlns:add="http://www.w3.org/2005/08/addressing"
    xmlns:x="http://www.onvif.org/ver10/schema" xmlns:tns1="http://www.onvif.org/ver10/topics"
    xmlns:ter="http://www.onvif.org/ver10/error">
  <soapenv:Header/>
  <!-- an answer -->
  <soapenv:Body>{}</soapenv:Body>
</soapenv:Envelope>"""

FAULT = """<soapenv:Fault>
  <soapenv:Code><soapenv:Value>soapenv:Sender</soapenv:Value>
    <soapenv:Subcode><soapenv:Value>{subcode}</soapenv:Value>
      <soapenv:Subcode><soapenv:Value>ter:Another</soapenv:Value></soapenv:Subcode></soapenv:Subcode></soapenv:Code>
  <soapenv:Reason><soapenv:Text xml:lang="en">{reason}</soapenv:Text></soapenv:Reason>
  <soapenv:Node>http://www.w3.org/2003/05/soap-envelope/node/ultimateReceiver</soapenv:Node>
  <soapenv:Role>http://www.w3.org/2003/05/soap-envelope/role/ultimateReceiver</soapenv:Role>
  <soapenv:Detail><soapenv:Text>fault detail</soapenv:Text></soapenv:Detail>
</soapenv:Fault>"""

MESSAGE = """<wsnt:NotificationMessage>
  <wsnt:Topic Dialect="http://www.onvif.org/ver10/tev/topicExpression/ConcreteSet">{topic}</wsnt:Topic>
  <wsnt:Message><x:Message UtcTime="{time}"{property}>
    <x:Source>
      <x:SimpleItem Name="VideoSourceConfigurationToken" Value="1"/>
      <x:SimpleItem Value="{rule}" Name="Rule"/>
    </x:Source>
    <x:Data><x:SimpleItem Name="{name}" Value="{value}"/></x:Data>
  </x:Message></wsnt:Message>
</wsnt:NotificationMessage>"""

CAPABILITIES = """<GetCapabilitiesResponse xmlns="http://www.onvif.org/ver10/device/wsdl"><Capabilities>
  <x:Device><x:XAddr>http://192.0.2.10/onvif/device_service</x:XAddr></x:Device>
  <x:Events><x:XAddr>http://192.0.2.10/Events</x:XAddr><x:WSPullPointSupport>true</x:WSPullPointSupport></x:Events>
  <x:Media><x:XAddr>http://192.0.2.10/Media</x:XAddr></x:Media>
  <x:PTZ><x:XAddr>http://192.0.2.10/PTZ</x:XAddr></x:PTZ>
</Capabilities></GetCapabilitiesResponse>"""



def services(*media):
    return "<d:GetServicesResponse xmlns:d='http://www.onvif.org/ver10/device/wsdl'>" + "".join(
        f"<d:Service><d:Namespace>{space}</d:Namespace><d:XAddr>http://192.0.2.10{path}</d:XAddr>"
        "<d:Version><x:Major>2</x:Major><x:Minor>60</x:Minor></d:Version></d:Service>"
        for space, path in ((DEVICE, "/onvif/device_service"), *media, (PTZ, "/PTZ"))) + "</d:GetServicesResponse>"


PROFILES = """<m:GetProfilesResponse xmlns:m="http://www.onvif.org/ver10/media/wsdl">
  <m:Profiles token="metadata_only" fixed="false"><x:Name>none</x:Name></m:Profiles>
  <m:Profiles fixed="true" token="quality_h264"><x:Name>quality</x:Name>
    <x:VideoSourceConfiguration token="0"><x:Name>user0</x:Name><x:UseCount>2</x:UseCount><x:SourceToken>0</x:SourceToken>
      <x:Bounds height="1080" width="1920" y="0" x="0"/></x:VideoSourceConfiguration>
    <x:VideoEncoderConfiguration token="e1"><x:Name>default</x:Name><x:UseCount>1</x:UseCount><x:Encoding>H264</x:Encoding>
      <x:Resolution><x:Height>1080</x:Height><x:Width>1920</x:Width></x:Resolution><x:Quality>70.5</x:Quality>
      <x:RateControl><x:FrameRateLimit>25</x:FrameRateLimit><x:EncodingInterval>1</x:EncodingInterval>
        <x:BitrateLimit>2147483647</x:BitrateLimit></x:RateControl>
      <x:H264><x:GovLength>32</x:GovLength><x:H264Profile>High</x:H264Profile></x:H264>
      <x:SessionTimeout>PT1M</x:SessionTimeout></x:VideoEncoderConfiguration>
    <x:PTZConfiguration token="ptz"><x:Name>ptz</x:Name><x:UseCount>1</x:UseCount><x:NodeToken>node7</x:NodeToken>
    </x:PTZConfiguration></m:Profiles>
</m:GetProfilesResponse>"""

PROFILES2 = """<m:GetProfilesResponse xmlns:m="http://www.onvif.org/ver20/media/wsdl">
  <m:Profiles token="h265" fixed="true"><m:Name>main</m:Name><m:Configurations>
    <m:VideoEncoder GovLength="60" token="e2" Profile="Main"><x:Name>e</x:Name><x:UseCount>1</x:UseCount>
      <x:Encoding>H265</x:Encoding><x:Resolution><x:Width>3840</x:Width><x:Height>2160</x:Height></x:Resolution>
      <x:RateControl ConstantBitRate="true"><x:FrameRateLimit>12.5</x:FrameRateLimit><x:BitrateLimit>8192</x:BitrateLimit>
      </x:RateControl><x:Quality>4</x:Quality></m:VideoEncoder>
    <m:PTZ token="ptz"><x:Name>ptz</x:Name><x:UseCount>1</x:UseCount><x:NodeToken>node7</x:NodeToken></m:PTZ>
  </m:Configurations></m:Profiles>
</m:GetProfilesResponse>"""

OPTIONS2 = """<m:GetVideoEncoderConfigurationOptionsResponse xmlns:m="http://www.onvif.org/ver20/media/wsdl">
  <m:Options ProfilesSupported="Main" FrameRatesSupported="25 12.5 6.25" GovLengthRange="1 60"><x:Encoding>H265</x:Encoding>
    <x:QualityRange><x:Min>0</x:Min><x:Max>10</x:Max></x:QualityRange>
    <x:ResolutionsAvailable><x:Width>3840</x:Width><x:Height>2160</x:Height></x:ResolutionsAvailable>
    <x:BitrateRange><x:Min>1</x:Min><x:Max>20480</x:Max></x:BitrateRange></m:Options>
</m:GetVideoEncoderConfigurationOptionsResponse>"""

NODE = """<p:GetNodeResponse xmlns:p="http://www.onvif.org/ver20/ptz/wsdl"><p:PTZNode FixedHomePosition="true" token="node7">
  <x:Name>dome</x:Name><x:SupportedPTZSpaces>
    <x:AbsolutePanTiltPositionSpace><x:URI>http://camera.example/Degrees</x:URI>
      <x:XRange><x:Min>-180</x:Min><x:Max>180</x:Max></x:XRange><x:YRange><x:Min>-90</x:Min><x:Max>20</x:Max></x:YRange>
    </x:AbsolutePanTiltPositionSpace>
    <x:AbsolutePanTiltPositionSpace>
      <x:URI>http://www.onvif.org/ver10/tptz/PanTiltSpaces/PositionGenericSpace</x:URI>
      <x:XRange><x:Min>-1</x:Min><x:Max>1</x:Max></x:XRange><x:YRange><x:Min>-1</x:Min><x:Max>1</x:Max></x:YRange>
    </x:AbsolutePanTiltPositionSpace>
    <x:ContinuousPanTiltVelocitySpace>
      <x:URI>http://www.onvif.org/ver10/tptz/PanTiltSpaces/VelocityGenericSpace</x:URI>
      <x:XRange><x:Min>-0.5</x:Min><x:Max>0.5</x:Max></x:XRange><x:YRange><x:Min>-0.5</x:Min><x:Max>0.5</x:Max></x:YRange>
    </x:ContinuousPanTiltVelocitySpace></x:SupportedPTZSpaces>
  <x:MaximumNumberOfPresets>4</x:MaximumNumberOfPresets><x:HomeSupported>true</x:HomeSupported></p:PTZNode></p:GetNodeResponse>"""

PRESETS = """<p:GetPresetsResponse xmlns:p="http://www.onvif.org/ver20/ptz/wsdl">
  <p:Preset token="gate"><x:Name>The gate</x:Name><x:PTZPosition><x:PanTilt y="0.25" x="-0.5"/></x:PTZPosition></p:Preset>
</p:GetPresetsResponse>"""

STATUS = """<p:GetStatusResponse xmlns:p="http://www.onvif.org/ver20/ptz/wsdl"><p:PTZStatus>
  <x:MoveStatus><x:PanTilt>IDLE</x:PanTilt></x:MoveStatus><x:UtcTime>2009-01-01T00:00:00Z</x:UtcTime></p:PTZStatus></p:GetStatusResponse>"""

URI2 = "<m:{}Response xmlns:m='http://www.onvif.org/ver20/media/wsdl'><m:Uri>{}</m:Uri></m:{}Response>"
URI = ("<{}Response xmlns='http://www.onvif.org/ver10/media/wsdl'><MediaUri><x:Uri>{}</x:Uri>"
       "<x:InvalidAfterConnect>false</x:InvalidAfterConnect><x:InvalidAfterReboot>true</x:InvalidAfterReboot>"
       "<x:Timeout>PT0S</x:Timeout></MediaUri></{}Response>")
OPTIONS = """<GetVideoEncoderConfigurationOptionsResponse xmlns="http://www.onvif.org/ver10/media/wsdl"><Options>
  <x:QualityRange><x:Min>0</x:Min><x:Max>100</x:Max></x:QualityRange>
  <x:H264><x:ResolutionsAvailable><x:Width>1920</x:Width><x:Height>1080</x:Height></x:ResolutionsAvailable>
    <x:GovLengthRange><x:Min>1</x:Min><x:Max>32767</x:Max></x:GovLengthRange>
    <x:FrameRateRange><x:Min>1</x:Min><x:Max>25</x:Max></x:FrameRateRange>
    <x:EncodingIntervalRange><x:Min>1</x:Min><x:Max>32</x:Max></x:EncodingIntervalRange>
    <x:H264ProfilesSupported>Main</x:H264ProfilesSupported></x:H264></Options></GetVideoEncoderConfigurationOptionsResponse>"""
HOST_NAME = """<GetHostnameResponse xmlns="http://www.onvif.org/ver10/device/wsdl"><HostnameInformation>
  <x:FromDHCP>false</x:FromDHCP><x:Name>gate-camera</x:Name></HostnameInformation></GetHostnameResponse>"""
NTP = """<d:GetNTPResponse xmlns:d="http://www.onvif.org/ver10/device/wsdl"><d:NTPInformation><x:FromDHCP>false</x:FromDHCP>
  <x:NTPManual><x:Type>DNS</x:Type><x:DNSname>ntp.example</x:DNSname></x:NTPManual>
  <x:NTPManual><x:Type>IPv6</x:Type><x:IPv6Address>2001:db8::1</x:IPv6Address></x:NTPManual></d:NTPInformation></d:GetNTPResponse>"""
USERS = """<d:GetUsersResponse xmlns:d="http://www.onvif.org/ver10/device/wsdl"><d:User><x:Username>operator</x:Username>
  <x:UserLevel>Administrator</x:UserLevel></d:User></d:GetUsersResponse>"""
RELAYS = """<d:GetRelayOutputsResponse xmlns:d="http://www.onvif.org/ver10/device/wsdl"><d:RelayOutputs token="r&amp;1"><x:Properties>
  <x:Mode>Bistable</x:Mode><x:DelayTime>PT0S</x:DelayTime><x:IdleState>open</x:IdleState></x:Properties></d:RelayOutputs>
  </d:GetRelayOutputsResponse>"""
INFORMATION = ("<GetDeviceInformationResponse xmlns='http://www.onvif.org/ver10/device/wsdl'><Manufacturer>Another</Manufacturer>"
               "<Model>A-1</Model><FirmwareVersion>1.0</FirmwareVersion><SerialNumber>7</SerialNumber>"
               "<HardwareId>714.4</HardwareId></GetDeviceInformationResponse>")


def now():
    return datetime.datetime.utcnow() + AHEAD


def time_text(moment):
    return moment.strftime("%Y-%m-%dT%H:%M:%S")


def clock():
    moment = now()
    return f"""<GetSystemDateAndTimeResponse xmlns="http://www.onvif.org/ver10/device/wsdl"><SystemDateAndTime>
      <x:DateTimeType>NTP</x:DateTimeType><x:DaylightSavings>true</x:DaylightSavings><x:TimeZone><x:TZ>CET-1CEST</x:TZ></x:TimeZone>
      <x:UTCDateTime><x:Time><x:Hour>{moment.hour}</x:Hour><x:Minute>{moment.minute}</x:Minute><x:Second>{moment.second}</x:Second>
      </x:Time><x:Date><x:Year>{moment.year}</x:Year><x:Month>{moment.month}</x:Month><x:Day>{moment.day}</x:Day></x:Date>
      </x:UTCDateTime><x:LocalDateTime/></SystemDateAndTime></GetSystemDateAndTimeResponse>"""


class Refusal(Exception):
    def __init__(self, subcode, reason):
        super().__init__(reason)
        self.subcode = subcode


class AnotherCamera:
    """Listens on 127.0.0.1 from construction to `with`'s end. `second`: it has the second version of the media service,
    and no other; `broken`: it lists both, and does nothing of the second one ("fault", or "cut": it hangs up)."""

    def __init__(self, second=False, broken=None, stream="rtsp://192.0.2.10/q?a=1&amp;b=2"):
        self.second = second
        self.broken = broken
        self.stream = stream  # that it tells of, as XML
        self.asked = []       # the operations, in their order
        self.wrong = []       # what no schema or WSDL allows in them
        self.nonces = set()
        self.subscribed = set()
        self.waiting = []     # messages that are not told yet
        self.moves = []
        self.second_asked = 0  # requests to the second version of the media service
        self.lock = threading.Lock()
        self.busy = False     # it answers every operation with a fault
        camera = self

        class Handler(http.server.BaseHTTPRequestHandler):
            protocol_version = "HTTP/1.1"

            def do_POST(self):  # pylint: disable=invalid-name
                body = self.rfile.read(int(self.headers["Content-Length"]))
                camera.second_asked += self.path == "/Media2"
                if camera.broken == "cut" and self.path == "/Media2":
                    self.close_connection = True
                    return
                status, answer = camera.answer(self.path, self.headers["Content-Type"], body)
                self.send(status, "application/soap+xml; charset=utf-8", ENVELOPE.format(answer).encode())

            def do_GET(self):  # pylint: disable=invalid-name
                found = self.path == "/snap.jpg?x=1&y=2"
                self.send(200 if found else 404, "image/jpeg", SNAPSHOT if found else b"")

            def send(self, status, kind, data):
                self.send_response(status)
                self.send_header("Content-Type", kind)
                self.send_header("Content-Length", str(len(data)))
                self.end_headers()
                self.wfile.write(data)

            def log_message(self, *_):
                pass

        class Server(http.server.ThreadingHTTPServer):
            def handle_error(self, *_):
                pass  # a client may break a connection off

        self.server = Server(("127.0.0.1", 0), Handler)
        self.host = f"127.0.0.1:{self.server.server_port}"
        threading.Thread(target=self.server.serve_forever, daemon=True).start()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.server.shutdown()
        self.server.server_close()

    def tell(self, topic, name, value, operation=None, rule="MyImportantFence1"):
        with self.lock:
            self.waiting.append(MESSAGE.format(
                topic=topic, name=name, value=value, rule=rule, time=time_text(now()) + ".321",
                property=f' PropertyOperation="{operation}"' if operation else ""))

    def answer(self, path, kind, body):
        try:
            envelope = ElementTree.fromstring(body)
            operation = envelope.find(SOAP + "Body")[0]
            space, name = operation.tag[1:].split("}")
            with self.lock:
                self.asked.append(name)
            if name == "GetSystemDateAndTime":
                return 200, clock()
            self.check_login(envelope)
            self.check_form(space, name, operation, envelope, kind)
            if self.busy:
                raise Refusal("ter:Busy", "fault reason")
            return 200, self.do(path, space, name, operation, envelope)
        except Refusal as refusal:
            return 400, FAULT.format(subcode=refusal.subcode, reason=refusal)
        except Exception as error:  # told by the test
            self.wrong.append(repr(error))
            return 500, FAULT.format(subcode="ter:Action", reason="broken")

    def check_login(self, envelope):
        token = envelope.find(f"{SOAP}Header/{WSSE}Security/{WSSE}UsernameToken")
        nonce = token.find(WSSE + "Nonce").text
        created = token.find(WSU + "Created").text
        digest = base64.b64encode(hashlib.sha1(base64.b64decode(nonce) + created.encode() + PASSWORD.encode()).digest()).decode()
        late = now() - datetime.datetime.strptime(created, "%Y-%m-%dT%H:%M:%SZ")
        with self.lock:
            again = nonce in self.nonces
            self.nonces.add(nonce)
        if token.find(WSSE + "Username").text != USER or token.find(WSSE + "Password").text != digest or again \
                or abs(late.total_seconds()) > 5:
            raise Refusal("ter:NotAuthorized", "Sender not Authorized")

    def check_form(self, space, name, operation, envelope, kind):
        elements = OPERATIONS.get((space, name))
        if elements is None:
            raise Refusal("ter:ActionNotSupported", "Optional Action Not Implemented")
        found = [each.tag for each in operation]
        self.check_order(name, found, [f"{{{space}}}{each}" for each in elements])
        for part in operation.iter():
            tag = part.tag.split("}")[1]
            if tag in PARTS and len(part) > 0:
                self.check_order(tag, [each.tag.split("}")[1] for each in part], PARTS[tag])
        if ACTIONS.get(name, f"{space}/{name}") not in kind:
            self.wrong.append(f"{name}: {kind}")
        if name in ACTIONS and envelope.findtext(f"{SOAP}Header/{WSA}Action") != ACTIONS[name]:
            self.wrong.append(f"{name}: no action in the header")

    def check_order(self, name, found, allowed):
        places = [allowed.index(each) if each in allowed else -1 for each in found]
        if -1 in places or places != sorted(places):
            self.wrong.append(f"{name}: {found}")

    def do(self, path, space, name, operation, envelope):
        if (name == "GetServices" and not self.second and not self.broken) or (self.broken and space == MEDIA2):
            raise Refusal("ter:ActionNotSupported", "Optional Action Not Implemented")
        uri = self.stream if name == "GetStreamUri" else "http://192.0.2.10:8080/snap.jpg?x=1&amp;y=2"
        plain = {"GetServices": services((MEDIA2, "/Media2"), *([] if self.second else [(MEDIA, "/Media")])),
                 "GetCapabilities": CAPABILITIES, "GetDeviceInformation": INFORMATION, "GetNode": NODE,
                 "GetPresets": PRESETS, "GetStatus": STATUS, "GetNTP": NTP, "GetUsers": USERS,
                 "GetRelayOutputs": RELAYS, "GetHostname": HOST_NAME,
                 "GetVideoEncoderConfigurationOptions": OPTIONS2 if space == MEDIA2 else OPTIONS,
                 "GetProfiles": PROFILES2 if space == MEDIA2 else PROFILES}
        if name in ("GetStreamUri", "GetSnapshotUri"):
            return (URI2 if space == MEDIA2 else URI).format(name, uri, name)
        if name in plain:
            return plain[name]
        if space == PTZ:
            sent = {}
            for each in operation.iter():  # of a position and a speed the first
                sent.setdefault(each.tag.split("}")[1], each.attrib or each.text)
            self.moves.append((name, sent))
            if name == "SetPreset":
                return f"<p:SetPresetResponse xmlns:p='{PTZ}'><p:PresetToken>new</p:PresetToken></p:SetPresetResponse>"
        if name == "CreatePullPointSubscription":
            number = str(len(self.subscribed) + len(self.asked))
            self.subscribed.add(number)
            # Of its own network, with a part that every request is to bring back as a header.
            return (f"<tet:CreatePullPointSubscriptionResponse><tet:SubscriptionReference><add:Address>"
                    f"http://192.0.2.10/Subscription?Idx={number}</add:Address><add:ReferenceParameters>"
                    f"<own:Id xmlns:own='http://camera.example/own'>{number}</own:Id></add:ReferenceParameters>"
                    f"</tet:SubscriptionReference>{self.times()}</tet:CreatePullPointSubscriptionResponse>")
        if space in (EVENTS, NOTIFICATION):
            number = envelope.findtext(f"{SOAP}Header/{{http://camera.example/own}}Id")
            if number not in self.subscribed or path != f"/Subscription?Idx={number}":
                self.wrong.append(f"{name}: of {number} at {path}")
            if name == "Unsubscribe":
                self.subscribed.discard(number)
            if name == "Renew":
                return f"<wsnt:RenewResponse>{self.times(False)}</wsnt:RenewResponse>"
            if name == "PullMessages":
                return self.pull()
        return f"<any:{name}Response xmlns:any='{space}'/>"

    @staticmethod
    def times(current_first=True):
        current = f"<wsnt:CurrentTime>{time_text(now())}</wsnt:CurrentTime>"
        end = f"<wsnt:TerminationTime>{time_text(now() + datetime.timedelta(seconds=LIFETIME))}</wsnt:TerminationTime>"
        return current + end if current_first else end + current

    def pull(self):
        for _ in range(10):
            with self.lock:
                messages, self.waiting = self.waiting, []
            if messages:
                break
            time.sleep(0.1)
        return ("<tet:PullMessagesResponse>" + self.times().replace("wsnt:", "tet:") + "".join(messages) +
                "</tet:PullMessagesResponse>")
