#pragma once

#include <string>

namespace android::tools {

// The name the library looks a layer up by: its name cut before the last
// '#', which holds the compositor's sequence number ("StatusBar#74").
inline std::string lookupName(const std::string& layerName) {
    return layerName.substr(0, layerName.rfind('#'));
}

} // namespace android::tools
