#include "PeerNames.h"

#include <strings.h>

namespace
{
struct Names
{
    const char* name;
    const char* alias;
};

const Names kNames[kPeerCount] = {
    {"AudioManager", "audio"},
    {"PersistentKeyValue", "kv"},
    {"TextToSpeechService", "tts"},
    {"DiagnosticService", "diag"},
    {"ModeManager", "mode"},
    {"MERIDOOnOff", "power"},
    {"CAN_HMI", "can"},
};
}

const char* peerName(Peer peer)
{
    return kNames[static_cast<int>(peer)].name;
}
const char* peerAlias(Peer peer)
{
    return kNames[static_cast<int>(peer)].alias;
}
std::string peerBusName(Peer peer)
{
    return std::string("com.quorin.service.") + peerName(peer);
}
std::string peerObjectPath(Peer peer)
{
    return std::string("/com/quorin/service/") + peerName(peer);
}
Peer peerAt(int index)
{
    return static_cast<Peer>(index);
}

bool findPeer(const std::string& word, Peer& peer)
{
    for (int i = 0; i < kPeerCount; ++i) {
        if (strcasecmp(word.c_str(), kNames[i].name) == 0 || strcasecmp(word.c_str(), kNames[i].alias) == 0 ||
            strcasecmp(word.c_str(), peerBusName(peerAt(i)).c_str()) == 0) {
            peer = peerAt(i);
            return true;
        }
    }
    return false;
}

bool findPeerByPath(const std::string& path, Peer& peer)
{
    for (int i = 0; i < kPeerCount; ++i) {
        if (path == peerObjectPath(peerAt(i))) {
            peer = peerAt(i);
            return true;
        }
    }
    return false;
}
