// KeyValueFile: the key-value peer's store, one JSON object in a file.
//
// Every change is written through at once (to a temporary file renamed over the old one), so the
// settings survive a restart of the CB radio service and of peersim itself. A missing file is an
// empty store; a file that is not a JSON object is reported by load() and the store starts empty
// (the file is only replaced at the next change). An empty path keeps the store in memory only.
// Not thread-safe: its owner serialises the calls.
#ifndef KEYVALUEFILE_H
#define KEYVALUEFILE_H

#include <json/value.h>

#include <string>
#include <vector>

class KeyValueFile
{
public:
    explicit KeyValueFile(std::string path);

    // "$CBRADIO_ROOT/var/lib/peersim/keyvalue.json" (without the prefix when CBRADIO_ROOT is
    // unset or empty; a relative prefix is taken from the current directory).
    static std::string defaultPath();

    bool load(std::string& error);
    bool get(const std::string& key, Json::Value& value) const;
    bool set(const std::string& key, const Json::Value& value, std::string& error);
    bool remove(const std::string& key, std::string& error);
    std::vector<std::string> keys() const;
    const std::string& path() const { return mPath; }

private:
    bool save(std::string& error) const;

    std::string mPath;
    Json::Value mValues;
};

#endif
