// The embedded HTTP server: a client application registers handlers by name and answers requests
// from inside them. docs/http_server.md tells the rules of requests and answers.
//
// Functions of a server belong to one controlling thread. Functions of a request belong to the
// handler that got it, on its own thread, until it returns. Null handles are refused with 0, and so
// is what there is no memory for.
#pragma once

#include <cstdint>
#include <string>

#include "cms/httpserver/http_server_types.h"
#include "cms/runtime/api.h"

extern "C" {

// A server that does not listen yet; null without a password lookup or when memory is short.
CMS_API HttpServer* CreateHttpServer(const cms::tHttpServerConfig* config);
// The same for a server that is told more: its address, its bound on connections, and a context for
// the look-up.
CMS_API HttpServer* CreateHttpServerEx(const cms::tHttpServerConfigEx* config);
// Before the start: connections are by TLS (1.2 and 1.3) alone, with this certificate and those
// that lead to its authority behind it, its key without a passphrase (files in PEM), and whole
// requests are read (see EnableWholeRequests). With a file of authorities' certificates only
// clients that show a certificate of theirs come in; empty: all. The files are looked at again as
// connections come, so a renewed certificate needs no restart. 1; 0 and why when the files do not
// do or the server runs.
CMS_API int SetHttpServerTls(HttpServer* server, const std::string& certificateFile,
                             const std::string& keyFile, const std::string& clientAuthorityFile,
                             std::string& problem);
// 1; 0 when it is running already or the port is taken.
CMS_API int StartHttpServer(HttpServer* server);
// Stops accepting, has the sends of running handlers fail, and returns when all of them have
// returned. Always 1. The server can be started again. Not from a handler.
CMS_API int CloseHttpServer(HttpServer* server);
// CloseHttpServer, then the end of the handle.
CMS_API int DestroyHttpServer(HttpServer* server);
// The port that a started server listens on.
CMS_API int GetHttpServerPort(HttpServer* server);

// Has requests for exactly this name ("/status") answered by the callback. A name is cut at 95
// bytes; of equal names the first counts. With "/auth" in it the name is behind Digest
// authentication; other names with "/" in them tell the handler of an old Internet Explorer by the
// marker "IE". 0 when memory is short.
CMS_API int RegisterEgi(HttpServer* server, const char* name, cms::EgiCallback callback);
// The context is handed to the callback, and has to live until the server is closed.
CMS_API int RegisterEgiEx(HttpServer* server, const char* name, cms::EgiCallbackEx callback,
                          void* context);

// Rules that are off at first; docs/http_server.md compares them. New servers want the first two.
//
// Non-zero: requests are read up to the end of their headers (64 KiB at most), in as many pieces
// and as slowly as they come within 10 s, and by RFC 9112: target, headers and Authorization are
// taken from where they belong. Answers tell that the connection is closed behind them, and a
// client that takes nothing of one for 30 s is gone. To be set before the server is started.
CMS_API int EnableWholeRequests(HttpServer* server, int enable);
// Non-zero: a login counts for the target that it was made for, with a nonce that this server gave
// out within the last 5 minutes. Else a login that was once seen opens every target, for the method
// it was made for, for ever.
CMS_API int EnableStrictDigest(HttpServer* server, int enable);
// Non-zero: clients are offered SHA-256 (RFC 7616) in front of MD5, with strict Digest. Not for
// clients that look at the first offer alone and know none but MD5, as Python's urllib.
CMS_API int EnableSha256Digest(HttpServer* server, int enable);
// Non-zero: the target is looked for in the first line of a request alone. Browsers send headers
// with a "?" in them to servers of their own host (Sec-Fetch-User, Sec-CH-UA-Mobile), behind which
// a target without a query is not found otherwise. Whole requests have that anyway.
CMS_API int EnableFirstLineTarget(HttpServer* server, int enable);

// Has every Digest login go by this callback, which can hold off who guesses passwords. To be set
// before the server is started; the context has to live until it is closed. Null: nobody is asked.
CMS_API int SetHttpLoginGuard(HttpServer* server, cms::HttpLoginGuard guard, void* context);

// Adds (3) or removes (4) a range of client addresses; see AccessRange. Always 1.
CMS_API int SetWhiteBlackListInfo(HttpServer* server, std::uint32_t low, std::uint32_t high,
                                  std::uint32_t kind, int operation);
CMS_API int ClearAllWhiteBlackListInfo(HttpServer* server);
// Non-zero: every new connection is checked, and refused unless a white range holds its address and
// no black one does.
CMS_API int EnableWhiteBlackList(HttpServer* server, int enable);
// What the check says of an address: 2 allowed, or not checked; 1 in no white range; 0 in a black
// one.
CMS_API int AllowAccess(HttpServer* server, std::uint32_t address);

// Accepts no more connections; those there are go on. 0, or -1 when the server does not listen.
CMS_API int StopListen(HttpServer* server);
// The first address of the local host's name as dotted text, empty when it has none. Valid until
// the calling thread asks again.
CMS_API const char* GetBindIP();
CMS_API void CloseAllRequest();  // does nothing

// 1 and the text, or 0 and an empty one. All of it comes from the network.
CMS_API int GetCGICommand(HttpRequest* request, std::string& command);
CMS_API int GetMethod(HttpRequest* request, std::string& method);
// Where "/auth" is in the handler's name, the user whose password was proven. Elsewhere what the
// client says: the first quoted "username" of the request.
CMS_API int GetUsername(HttpRequest* request, std::string& userName);
// The text behind "?", as GetMethod; with a null pointer its length in bytes.
CMS_API int GetQueryData(HttpRequest* request, std::string* query);
// The first header of that name, whose case does not count: "Host". 1 and its value, which may be
// empty, or 0 when it is not in what was read.
CMS_API int RequestGetHeader(HttpRequest* request, const char* name, std::string& value);

// The request's body, which is waited for. 0 unless whole requests are read, it has a
// Content-Length of at most that many bytes, and all of them came within 10 s (1 s while many
// connections are being served). Once for a request.
CMS_API int RequestReadBody(HttpRequest* request, std::uint32_t mostBytes, std::string& body);

CMS_API std::uint32_t GetClientAddress(HttpRequest* request);  // network byte order
CMS_API int GetClientAddressString(HttpRequest* request, std::string& address);
CMS_API int GetBindPort(HttpRequest* request);
// The connection's thread as the system's handle of it (pthread_t).
CMS_API std::uintptr_t GetThreadHandle(HttpRequest* request);
// Asks for a priority, from -3 to 3, 0 being the usual one and more being more urgent.
CMS_API int SetRequestThreadPriority(HttpRequest* request, int priority);
// The system's send buffer of this connection, in bytes: 0, or -1 on failure.
CMS_API int SetSendSocketBuufer(HttpRequest* request, int size);

// Append to the answer's body, which is sent when the handler returns: 1, or 0 when memory is
// short. Formatted text of more than 40,959 characters is cut there, with the result 0. A text that
// came from the network is never a format.
CMS_API int RequestWrite(HttpRequest* request, const char* text);
CMS_API int RequestWriteFormat(HttpRequest* request, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

// Sends the header block, the first time, and then these bytes, none for the method HEAD. Waits for
// a client that reads slowly. 0 when the client is gone or the server is being closed: return then.
// The header tells the length of the body appended so far, and none when that is empty. A handler
// that streams ends with ForceDissconnect, or the appended body is sent once more behind it.
CMS_API int RequestFlushWrite(HttpRequest* request, const char* data, int length);
// Sends the header block of a file of that many bytes, which RequestFlushWrite then sends. The
// time of change is a text such as "Tue, 04 Nov 2014 08:49:37 GMT", or empty; one with control
// characters is left out. 0: nothing was sent, as a header block went out before or the client is
// gone.
CMS_API int SendHeaderForFile(HttpRequest* request, long long length, std::string lastModified);

// One of HttpStatusIndex. Any other number gives a status line without code and text, which no
// client takes; but where whole requests are read, a status code from 200 to 599 (404) is told as
// such, and other numbers are refused with 0.
CMS_API int SetStatusCode(HttpRequest* request, std::uint32_t status);
// What "Content-type:" says: "application/json". "text/html" unless told. 0 for control characters.
CMS_API int RequestSetContentType(HttpRequest* request, const char* type);
// Another line of the header block, which has not gone out yet: "Content-Security-Policy". None of
// those that the server writes itself. 0 for what is no name of a header, and for a value with
// control characters.
CMS_API int RequestAddHeader(HttpRequest* request, const char* name, const char* value);
// What the "Connection:" line says; the connection is closed in any case, and where whole requests
// are read it is "close" in any case.
CMS_API int SetKeepConnection(HttpRequest* request, int keep);
// Nothing more is sent once the handler has returned.
CMS_API int ForceDissconnect(HttpRequest* request);

}  // extern "C"
