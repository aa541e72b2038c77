#include "V850Model.h"

#include <cstdio>
#include <cstring>

namespace
{
V850Frame makeFrame(uint8_t id, std::initializer_list<uint8_t> payload)
{
    V850Frame frame(payload.size() + 2);
    frame[0] = id;
    frame[1] = static_cast<uint8_t>(payload.size());
    size_t i = 2;
    for (uint8_t b : payload)
        frame[i++] = b;
    return frame;
}
}

V850Model::V850Model()
    : mRadioOn(false), mHwConnection(0), mChannel(1), mSquelch(8), mWeatherAlert(0), mScanning(false), mScanChannel(1),
      mRefusePending(false), mRefuseCode(REFUSED)
{
    setHardwareVersion('1', '0');
    setSoftwareVersion("SW01.02.03");
}

void V850Model::setHardwareVersion(uint8_t first, uint8_t second)
{
    mHwVersion[0] = first;
    mHwVersion[1] = second;
}

void V850Model::setSoftwareVersion(const std::string& text)
{
    std::memset(mSwVersion, ' ', sizeof(mSwVersion));
    std::memcpy(mSwVersion, text.data(), text.size() < sizeof(mSwVersion) ? text.size() : sizeof(mSwVersion));
}

uint8_t V850Model::resultCode(bool valid)
{
    if (mRefusePending) {
        mRefusePending = false;
        return mRefuseCode;
    }
    return valid ? POSITIVE : REFUSED;
}

// The frames the head unit writes: id, payload length, and what the module does with them.
const V850Model::Request V850Model::kRequests[] = {
    {0x07, 0, &V850Model::onHardwareVersion}, {0x08, 0, &V850Model::onSoftwareVersion},
    {0x01, 1, &V850Model::onRadioState},      {0x02, 1, &V850Model::onChannelSelect},
    {0x03, 1, &V850Model::onSquelchLevel},    {0x04, 1, &V850Model::onStartScan},
    {0x05, 0, &V850Model::onStopScan},        {0x0C, 1, &V850Model::onWeatherAlertOnOff},
    {0x0E, 1, &V850Model::onPushToTalk},
};

std::vector<V850Frame> V850Model::onFrame(const uint8_t* data, size_t length)
{
    std::vector<V850Frame> answers;
    if (data == nullptr || length < 2 || length != static_cast<size_t>(data[1]) + 2)
        return answers;
    for (const Request& r : kRequests)
        if (r.id == data[0] && r.payloadLength == data[1])
            (this->*r.handle)(data[1] >= 1 ? data[2] : 0, answers);
    return answers;
}

void V850Model::onHardwareVersion(uint8_t, std::vector<V850Frame>& answers)
{
    answers.push_back(makeFrame(0x07, {mHwVersion[0], mHwVersion[1]}));
}

void V850Model::onSoftwareVersion(uint8_t, std::vector<V850Frame>& answers)
{
    V850Frame frame(2 + sizeof(mSwVersion));
    frame[0] = 0x08;
    frame[1] = sizeof(mSwVersion);
    std::memcpy(frame.data() + 2, mSwVersion, sizeof(mSwVersion));
    answers.push_back(frame);
}

void V850Model::onRadioState(uint8_t state, std::vector<V850Frame>& answers)
{
    uint8_t code = resultCode(state <= 1);
    if (code == POSITIVE)
        mRadioOn = state == 1;
    if (!mRadioOn)
        mScanning = false;
    answers.push_back(makeFrame(0x01, {static_cast<uint8_t>(mRadioOn ? 1 : 0), code}));
}

// A setting is taken only when accepted, and echoed with its result code either way.
V850Frame V850Model::answerSetting(uint8_t id, uint8_t value, bool valid, uint8_t& setting)
{
    uint8_t code = resultCode(valid);
    if (code == POSITIVE)
        setting = value;
    return makeFrame(id, {value, code});
}

void V850Model::onChannelSelect(uint8_t channel, std::vector<V850Frame>& answers)
{
    answers.push_back(answerSetting(0x02, channel, channel >= 1 && channel <= MAX_CHANNEL, mChannel));
}

void V850Model::onSquelchLevel(uint8_t level, std::vector<V850Frame>& answers)
{
    answers.push_back(answerSetting(0x03, level, level <= MAX_SQUELCH, mSquelch));
}

void V850Model::onStartScan(uint8_t channel, std::vector<V850Frame>&)
{
    mScanning = true;
    mScanChannel = (channel >= 1 && channel <= MAX_CHANNEL) ? channel : mChannel;
}

void V850Model::onStopScan(uint8_t, std::vector<V850Frame>&)
{
    mScanning = false;
}

void V850Model::onWeatherAlertOnOff(uint8_t onOff, std::vector<V850Frame>& answers)
{
    mWeatherAlert = onOff;
    answers.push_back(makeFrame(0x0B, {onOff}));
}

void V850Model::onPushToTalk(uint8_t pressed, std::vector<V850Frame>& answers)
{
    answers.push_back(makeFrame(0x0A, {static_cast<uint8_t>(pressed ? 1 : 0), 0}));
}

std::vector<V850Frame> V850Model::onScanTick()
{
    std::vector<V850Frame> frames;
    if (!mScanning)
        return frames;
    mScanChannel = mScanChannel >= MAX_CHANNEL ? 1 : mScanChannel + 1;
    mChannel = mScanChannel;
    frames.push_back(makeFrame(0x02, {mScanChannel, POSITIVE}));
    return frames;
}

V850Frame V850Model::radioState(uint8_t state)
{
    mRadioOn = state == 1;
    if (!mRadioOn)
        mScanning = false;
    return makeFrame(0x01, {state, POSITIVE});
}

V850Frame V850Model::channelSelect(uint8_t channel)
{
    if (channel >= 1 && channel <= MAX_CHANNEL)
        mChannel = channel;
    return makeFrame(0x02, {channel, POSITIVE});
}

V850Frame V850Model::squelchLevel(uint8_t level)
{
    if (level <= MAX_SQUELCH)
        mSquelch = level;
    return makeFrame(0x03, {level, POSITIVE});
}

V850Frame V850Model::weatherAlertOnOff(uint8_t onOff)
{
    mWeatherAlert = onOff;
    return makeFrame(0x0B, {onOff});
}

V850Frame V850Model::txRxStatus(uint8_t tx, uint8_t rx)
{
    return makeFrame(0x0A, {tx, rx});
}

V850Frame V850Model::receptionSensitivity(uint8_t raw)
{
    return makeFrame(0x09, {raw});
}

V850Frame V850Model::hardwareConnection(uint8_t connected)
{
    if (connected <= 1)
        mHwConnection = connected;
    return makeFrame(0x0F, {connected});
}

std::vector<V850Frame> V850Model::announcement() const
{
    return {makeFrame(0x01, {static_cast<uint8_t>(mRadioOn ? 1 : 0)}), makeFrame(0x0F, {mHwConnection})};
}

V850Frame V850Model::weatherAlert(uint8_t status, uint8_t weatherChannel)
{
    return makeFrame(0x0C, {status, weatherChannel});
}

std::string V850Model::describe() const
{
    char line[160];
    std::snprintf(line, sizeof(line),
                  "radio=%s connected=%u channel=%u squelch=%u weatherAlert=%u scan=%s hw=%02X %02X sw=%.10s",
                  mRadioOn ? "on" : "off", mHwConnection, mChannel, mSquelch, mWeatherAlert, mScanning ? "on" : "off",
                  mHwVersion[0], mHwVersion[1], mSwVersion);
    return line;
}

std::string V850Model::toHex(const uint8_t* data, size_t length)
{
    std::string text;
    char byte[4];
    for (size_t i = 0; i < length; ++i) {
        std::snprintf(byte, sizeof(byte), i == 0 ? "%02X" : " %02X", data[i]);
        text += byte;
    }
    return text;
}
