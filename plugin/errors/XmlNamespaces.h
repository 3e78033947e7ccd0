// XML namespace URIs of the device API's documents, version 2.0. Clients match
// the "xmlns" attribute literally, so every document of the plug-in takes its
// namespace from here.
#ifndef HTTPWRAPPER_ERRORS_XMLNAMESPACES_H
#define HTTPWRAPPER_ERRORS_XMLNAMESPACES_H

namespace HttpWrapper {

// ResponseStatus documents (and the other documents of the device API proper).
inline constexpr char XMLNS_DEVICE_API_2_0[] = "urn:qumex:device-api:2.0";
// The audio API's documents, such as TwoWayAudioSession; distinct from the one above.
inline constexpr char XMLNS_AUDIO_API_2_0[] = "urn:qumex:audio-api:2.0";

}  // namespace HttpWrapper

#endif  // HTTPWRAPPER_ERRORS_XMLNAMESPACES_H
