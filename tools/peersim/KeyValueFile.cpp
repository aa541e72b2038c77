#include "KeyValueFile.h"

#include <json/reader.h>
#include <json/writer.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

namespace
{
// mkdir -p for the folder part of `file`.
bool makeParents(const std::string& file, std::string& error)
{
    for (size_t slash = file.find('/', 1); slash != std::string::npos; slash = file.find('/', slash + 1)) {
        std::string dir = file.substr(0, slash);
        if (::mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST) {
            error = "cannot create " + dir + ": " + std::strerror(errno);
            return false;
        }
    }
    return true;
}
}

KeyValueFile::KeyValueFile(std::string path) : mPath(std::move(path)), mValues(Json::objectValue) {}

std::string KeyValueFile::defaultPath()
{
    std::string root;
    if (const char* env = std::getenv("CBRADIO_ROOT"))
        root = env;
    if (!root.empty() && root[0] != '/') {
        char cwd[4096];
        if (::getcwd(cwd, sizeof(cwd)) != nullptr)
            root = std::string(cwd) + "/" + root;
    }
    while (!root.empty() && root.back() == '/')
        root.pop_back();
    return root + "/var/lib/peersim/keyvalue.json";
}

bool KeyValueFile::load(std::string& error)
{
    mValues = Json::Value(Json::objectValue);
    if (mPath.empty())
        return true;
    std::ifstream in(mPath);
    if (!in)
        return true;
    std::stringstream text;
    text << in.rdbuf();
    Json::CharReaderBuilder builder;
    Json::Value parsed;
    std::string why;
    std::istringstream stream(text.str());
    if (!Json::parseFromStream(builder, stream, &parsed, &why) || !parsed.isObject()) {
        error = mPath + " is not a JSON object; starting with an empty store";
        return false;
    }
    mValues = parsed;
    return true;
}

bool KeyValueFile::get(const std::string& key, Json::Value& value) const
{
    if (!mValues.isMember(key))
        return false;
    value = mValues[key];
    return true;
}

bool KeyValueFile::set(const std::string& key, const Json::Value& value, std::string& error)
{
    mValues[key] = value;
    return save(error);
}

bool KeyValueFile::remove(const std::string& key, std::string& error)
{
    if (!mValues.isMember(key))
        return true;
    mValues.removeMember(key);
    return save(error);
}

std::vector<std::string> KeyValueFile::keys() const
{
    return mValues.getMemberNames();
}

bool KeyValueFile::save(std::string& error) const
{
    if (mPath.empty())
        return true;
    if (!makeParents(mPath, error))
        return false;
    const std::string temporary = mPath + ".tmp";
    {
        // One key per line, each value compact: easy to read and to edit by hand.
        std::ofstream out(temporary, std::ios::trunc);
        Json::StreamWriterBuilder builder;
        builder["indentation"] = "";
        const std::vector<std::string> names = mValues.getMemberNames();
        out << "{";
        for (size_t i = 0; i < names.size(); ++i)
            out << (i ? ",\n  " : "\n  ") << Json::writeString(builder, Json::Value(names[i])) << ": "
                << Json::writeString(builder, mValues[names[i]]);
        out << "\n}\n";
        out.flush();
        if (!out) {
            error = "cannot write " + temporary;
            return false;
        }
    }
    if (std::rename(temporary.c_str(), mPath.c_str()) != 0) {
        error = "cannot replace " + mPath + ": " + std::strerror(errno);
        return false;
    }
    return true;
}
