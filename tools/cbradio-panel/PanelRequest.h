// PanelRequest: what the panel accepts from a browser before anything reaches the bus.
//
// The panel forwards a call of one of the CB radio service's methods, named in the path
// (/api/call/<method>), with the request body as its JSON argument. parseCall() decides, without
// I/O, whether such a request may go out: the method must be one of the service's fifteen, the body
// must fit the size limit and be empty (a call without arguments) or one JSON object. Browsers
// must also come from the panel's own page: isSameOrigin() compares the Origin header with the Host
// header, and isAllowedHost() keeps other host names away (a page elsewhere that resolves its own
// name to 127.0.0.1 would otherwise be "same origin"). Every refusal carries the HTTP status and a
// message meant for the person reading the panel's log.
#ifndef PANELREQUEST_H
#define PANELREQUEST_H

#include <cstddef>
#include <string>
#include <vector>

namespace panel
{

// Bodies above this many bytes are refused (the largest real argument is about 40 bytes).
const std::size_t kMaxBodyBytes = 4096;

struct ServiceMethod
{
    const char* name;
    bool expectsReply;  // false: the service never answers it, so it is sent without waiting
};

// The service's methods, in the order the panel's page lists them.
const std::vector<ServiceMethod>& serviceMethods();
const ServiceMethod* findServiceMethod(const std::string& name);

struct CallRequest
{
    std::string method;
    std::string argument;  // the JSON object as sent, blanks around it cut; "" for none
    bool expectsReply = true;
};

struct Refusal
{
    int httpStatus = 0;  // 0: not refused
    std::string message;
    explicit operator bool() const { return httpStatus != 0; }
};

// Checks a call request; on success fills `out`.
Refusal parseCall(const std::string& method, const std::string& body, CallRequest& out);

// True when `origin` (an Origin header, "" when absent) names the same scheme, host and port as
// `host` (the Host header). A request without Origin does not come from another site's page.
bool isSameOrigin(const std::string& origin, const std::string& host);

// True when the Host header names one of `allowed` (host:port texts); an empty list allows any.
bool isAllowedHost(const std::string& host, const std::vector<std::string>& allowed);

}  // namespace panel

#endif
