// The plug-in's side of the gateway's message model: requests, responses,
// their first lines, heads, attributes and bodies, and the text format in
// which the plug-in hands requests to the filter chain. Include this header
// for all of them.
#ifndef HTTPWRAPPER_PROTOCOL_PROTOCOLFILTER_H
#define HTTPWRAPPER_PROTOCOL_PROTOCOLFILTER_H

#include <ProtocolFilter.h>

#include "protocol/ProtocolAttr.h"
#include "protocol/ProtocolBody.h"
#include "protocol/ProtocolCommon.h"
#include "protocol/ProtocolHead.h"
#include "protocol/ProtocolRequest.h"
#include "protocol/ProtocolRequestLine.h"
#include "protocol/ProtocolResponse.h"
#include "protocol/ProtocolStatusLine.h"

#endif  // HTTPWRAPPER_PROTOCOL_PROTOCOLFILTER_H
