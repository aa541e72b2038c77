// PeerNames: the seven head-unit services peersim stands in for, and how a user names them.
//
// Each peer has a bus name "com.quorin.service.<Name>" and an object path
// "/com/quorin/service/<Name>". On the command line a peer is given by its name (any letter case)
// or by a short alias: audio, kv, tts, diag, mode, power, can.
#ifndef PEERNAMES_H
#define PEERNAMES_H

#include <string>

enum class Peer {
    AudioManager,
    PersistentKeyValue,
    TextToSpeechService,
    DiagnosticService,
    ModeManager,
    MERIDOOnOff,
    CAN_HMI
};

constexpr int kPeerCount = 7;

const char* peerName(Peer peer);        // "AudioManager"
const char* peerAlias(Peer peer);       // "audio"
std::string peerBusName(Peer peer);     // "com.quorin.service.AudioManager"
std::string peerObjectPath(Peer peer);  // "/com/quorin/service/AudioManager"
Peer peerAt(int index);                 // 0..kPeerCount-1, in the order of the enum

// Name or alias, letters in any case. False for anything else.
bool findPeer(const std::string& word, Peer& peer);
// The peer whose object path this is. False for any other path.
bool findPeerByPath(const std::string& path, Peer& peer);

#endif
