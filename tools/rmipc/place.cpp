// Where the objects of a server are found.
//
// Why: nothing in an object says whose it is. Its key is made from a token file, the path of which
// begins with whatever the host gave as prefix. People type what they see, which is a directory.
#include "place.h"

#include "common/text.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include <sys/stat.h>

namespace rmipc
{
namespace
{
constexpr uint32_t kNumberBits = 0xFFFF;
constexpr uint32_t kDeviceBits = 0xFF;

bool isDirectory(const std::string& path)
{
    struct stat status = {};
    return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

// A way to understand a prefix.
struct Form {
    std::string prefix;
    std::string why;
};

std::vector<Form> formsOf(const std::string& given)
{
    std::vector<Form> forms = {{given, ""}};
    if (!given.empty() && given.back() != '/' && isDirectory(given)) {
        forms.push_back({given + "/", "a directory: its token files begin with " +
                                          tools::printable(given) + "/"});
    }
    if (given.size() > kMostOfPrefix) {
        forms.push_back({given.substr(0, kMostOfPrefix),
                         "too long: of a prefix the library keeps the first 31 bytes"});
    }
    return forms;
}

void fill(Place& place, const Form& form)
{
    place.prefix = form.prefix;
    place.note = form.why;
    for (const Family family : kEachFamily) {
        place.tokens[family] = lookAt(form.prefix + std::string(kTokenFiles[family]));
    }
}
}  // namespace

uint32_t keyBase(dev_t device, ino_t number)
{
    return (static_cast<uint32_t>(number) & kNumberBits) |
           (static_cast<uint32_t>(device) & kDeviceBits) << 16;
}

Token lookAt(const std::string& path)
{
    Token token;
    token.path = path;
    struct stat status = {};
    if (lstat(path.c_str(), &status) != 0) {
        if (errno != ENOENT) {
            token.state = TokenState::kUnknown;
            token.trouble = std::strerror(errno);
        }
        return token;
    }
    if (S_ISLNK(status.st_mode) || S_ISDIR(status.st_mode)) {
        token.state = TokenState::kUnusable;
        token.trouble =
            S_ISLNK(status.st_mode) ? "a symbolic link, which the library refuses" : "a directory";
        return token;
    }
    token.state = TokenState::kPresent;
    token.device = status.st_dev;
    token.number = status.st_ino;
    token.base = keyBase(status.st_dev, status.st_ino);
    return token;
}

bool Place::anyToken() const
{
    return std::ranges::any_of(
        tokens, [](const Token& token) { return token.state == TokenState::kPresent; });
}

bool Place::anyTrouble() const
{
    return std::ranges::any_of(
        tokens, [](const Token& token) { return token.state == TokenState::kUnknown; });
}

Place understand(const std::string& given)
{
    const std::vector<Form> forms = formsOf(given);
    Place chosen;
    std::string others;
    for (const Form& form : forms) {
        Place place;
        fill(place, form);
        if (!place.anyToken()) {
            continue;
        }
        if (!chosen.anyToken()) {
            chosen = place;
        } else {
            others += "; there are token files of " + tools::printable(form.prefix) + " too";
        }
    }
    if (!chosen.anyToken()) {
        // What is wrong with it is best told of the directory.
        fill(chosen, forms.size() > 1 && !forms[1].prefix.empty() &&
                             forms[1].prefix.back() == '/' && given.back() != '/'
                         ? forms[1]
                         : forms[0]);
    }
    if (chosen.note.empty() && !others.empty()) {
        chosen.note = "taken as it is";
    }
    chosen.note += others;
    chosen.given = given;
    return chosen;
}

}  // namespace rmipc
