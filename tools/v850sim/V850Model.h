// V850Model: what the vehicle microcontroller answers to the CB radio service.
//
// Frames are byte 0 message id, byte 1 payload length, then the payload. The model keeps the
// radio's state (power, channel, squelch, weather alert, scan, versions) and turns every frame the
// head unit writes into the frames a microcontroller would send back:
//
//   07 00          -> 07 02 <hw0> <hw1>                 hardware version
//   08 00          -> 08 0A <10 characters>             software version
//   01 01 s        -> 01 02 s A0                        radio on/off (state byte, result code)
//   02 01 c        -> 02 02 c A0                        channel select, c in 1..40
//   03 01 q        -> 03 02 q A0                        squelch, q in 0..14
//   04 01 c        -> (scan starts at c; onScanTick() then yields 02 02 <next> A0)
//   05 00          -> (scan stops)
//   0C 01 w        -> 0B 01 w                           weather alert on/off status
//   0E 01 p        -> 0A 02 p 00                        Tx/Rx status after PTT on/off
//   00 01          -> nothing (status queries carry no answer)
//
// Refusals: a channel outside 1..40 or a squelch above 14 is answered with result code 0xA1 and
// the state is kept. refuseNext(code) makes the next answer of 01, 02 or 03 carry that code instead
// of 0xA0 (and leaves the state unchanged). Frames with a wrong length byte, unknown ids and
// truncated frames get no answer. Not thread-safe: the simulator serialises calls.
//
// announcement() is what the microcontroller says to every new connection (a reconnect, or a
// restarted service): its radio state as 01 01 s and its hardware connection as 0F 01 h, so that
// the service follows what the module really does. The model starts with the radio off and the
// module not connected.
#ifndef V850MODEL_H
#define V850MODEL_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

typedef std::vector<uint8_t> V850Frame;

class V850Model
{
public:
    enum { POSITIVE = 0xA0, REFUSED = 0xA1, MAX_CHANNEL = 40, MAX_SQUELCH = 14 };

    V850Model();

    // Answers to one frame written by the head unit (possibly none).
    std::vector<V850Frame> onFrame(const uint8_t* data, size_t length);

    // While a scan runs: the next channel-select frame (02 02 c A0), stepping upwards with wrap.
    // Empty when no scan runs.
    std::vector<V850Frame> onScanTick();

    bool isScanning() const { return mScanning; }
    void refuseNext(uint8_t code)
    {
        mRefuseCode = code;
        mRefusePending = true;
    }

    void setHardwareVersion(uint8_t first, uint8_t second);
    // Takes up to 10 characters; shorter texts are padded with blanks.
    void setSoftwareVersion(const std::string& text);

    // Spontaneous reports the microcontroller sends on its own; they also update the state.
    V850Frame radioState(uint8_t state);
    V850Frame channelSelect(uint8_t channel);
    V850Frame squelchLevel(uint8_t level);
    V850Frame weatherAlertOnOff(uint8_t onOff);
    V850Frame txRxStatus(uint8_t tx, uint8_t rx);
    static V850Frame receptionSensitivity(uint8_t raw);
    V850Frame hardwareConnection(uint8_t connected);
    std::vector<V850Frame> announcement() const;
    static V850Frame weatherAlert(uint8_t status, uint8_t weatherChannel);

    // One line describing the state, for the simulator's "status" command.
    std::string describe() const;

    static std::string toHex(const uint8_t* data, size_t length);
    static std::string toHex(const V850Frame& frame) { return toHex(frame.data(), frame.size()); }

private:
    struct Request
    {
        uint8_t id;
        uint8_t payloadLength;
        void (V850Model::*handle)(uint8_t arg, std::vector<V850Frame>& answers);  // arg: payload byte 0
    };
    static const Request kRequests[];

    uint8_t resultCode(bool valid);
    V850Frame answerSetting(uint8_t id, uint8_t value, bool valid, uint8_t& setting);
    void onHardwareVersion(uint8_t, std::vector<V850Frame>& answers);
    void onSoftwareVersion(uint8_t, std::vector<V850Frame>& answers);
    void onRadioState(uint8_t state, std::vector<V850Frame>& answers);
    void onChannelSelect(uint8_t channel, std::vector<V850Frame>& answers);
    void onSquelchLevel(uint8_t level, std::vector<V850Frame>& answers);
    void onStartScan(uint8_t channel, std::vector<V850Frame>& answers);
    void onStopScan(uint8_t, std::vector<V850Frame>& answers);
    void onWeatherAlertOnOff(uint8_t onOff, std::vector<V850Frame>& answers);
    void onPushToTalk(uint8_t pressed, std::vector<V850Frame>& answers);

    bool mRadioOn;
    uint8_t mHwConnection;
    uint8_t mChannel;
    uint8_t mSquelch;
    uint8_t mWeatherAlert;
    bool mScanning;
    uint8_t mScanChannel;
    bool mRefusePending;
    uint8_t mRefuseCode;
    uint8_t mHwVersion[2];
    char mSwVersion[10];
};

#endif
