#include "PrivateBus.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

namespace
{
const char* const kConfig = "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
                            " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
                            "<busconfig>\n"
                            "  <type>session</type>\n"
                            "  <listen>unix:path=@FOLDER@/bus</listen>\n"
                            "  <auth>EXTERNAL</auth>\n"
                            "  <policy context=\"default\">\n"
                            "    <allow send_destination=\"*\" eavesdrop=\"true\"/>\n"
                            "    <allow eavesdrop=\"true\"/>\n"
                            "    <allow own=\"*\"/>\n"
                            "  </policy>\n"
                            "</busconfig>\n";
}

PrivateBus::~PrivateBus()
{
    stop();
}

bool PrivateBus::start()
{
    stop();
    char folder[] = "/tmp/cbradio-bus-XXXXXX";
    if (!mkdtemp(folder)) {
        mError = std::string("mkdtemp: ") + strerror(errno);
        return false;
    }
    mFolder = folder;
    std::string config = kConfig;
    config.replace(config.find("@FOLDER@"), 8, mFolder);
    std::ofstream(mFolder + "/session.conf") << config;

    // The daemon's complaints (fd limits of an unprivileged run) go to its folder, not to the
    // test's output.
    ChildProcess::Io io;
    io.outPath = mFolder + "/address";
    io.errPath = mFolder + "/daemon.log";
    const std::string address = mFolder + "/address";
    if (!mDaemon.start({"/usr/bin/dbus-daemon", "--config-file=" + mFolder + "/session.conf", "--nofork",
                        "--print-address"},
                       ChildProcess::environmentWith({}), io) ||
        !waitUntil([&] { return readFile(address).find('\n') != std::string::npos; }, 10000)) {
        mError = "dbus-daemon did not print its address: " + readFile(mFolder + "/daemon.log");
        stop();
        return false;
    }
    mAddress = readFile(address).substr(0, readFile(address).find('\n'));
    return true;
}

void PrivateBus::kill()
{
    if (mDaemon.running())
        ::kill(mDaemon.pid(), SIGKILL);
    mDaemon.wait(5000);
}

void PrivateBus::stop()
{
    mDaemon.stop(2000);
    if (!mFolder.empty()) {
        std::error_code ec;
        std::filesystem::remove_all(mFolder, ec);
        mFolder.clear();
    }
    mAddress.clear();
}

void PrivateBus::exportAddress() const
{
    setenv("DBUS_SESSION_BUS_ADDRESS", mAddress.c_str(), 1);
}
