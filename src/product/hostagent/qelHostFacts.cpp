#define QEL_SOURCE_NAME "qelHostFacts"

#include "qelHostFacts.h"

#include <dirent.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <vector>

#include "qelPlatform.h"
#include "qelSmbios.h"

namespace qelHostFacts {

namespace {

constexpr const char* etcOsRelease = "/etc/os-release";
constexpr const char* usrOsRelease = "/usr/lib/os-release";
constexpr const char* sysfsEntryPoint = "/sys/firmware/dmi/tables/smbios_entry_point";
constexpr const char* sysfsTable = "/sys/firmware/dmi/tables/DMI";

// Where the presented image puts the table: the second of the reader's 4 KiB
// blocks, below the 1 MiB it reads as a stream.
constexpr std::uint32_t imageTableAddress = 0x1000;
constexpr std::uint32_t imageBlock = 0x1000;
// The longest table a 32-bit entry point can announce.
constexpr std::size_t longestTable = 0xFFFF;

bool readWhole(const std::string& fixedPath, std::string& out) {
    std::ifstream file(qelPlatform::platform().path(fixedPath), std::ios::in | std::ios::binary);
    if (!file.is_open()) return false;
    std::ostringstream text;
    text << file.rdbuf();
    if (file.bad()) return false;
    out = text.str();
    return true;
}

bool validKey(const std::string& key) {
    if (key.empty()) return false;
    for (char c : key)
        if (!((c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_')) return false;
    return true;
}

// The value of one assignment; false when its quoting is broken (an
// unterminated quote, text behind the closing one).
bool unquote(const std::string& raw, std::string& value) {
    value.clear();
    if (raw.empty()) return true;
    const char quote = raw[0];
    if (quote != '"' && quote != '\'') {
        // Bare values may not hold blanks or shell specials; take them as
        // they are otherwise (a common, harmless laxity of real files).
        value = raw;
        return raw.find_first_of(" \t") == std::string::npos;
    }
    std::size_t i = 1;
    for (; i < raw.size(); ++i) {
        const char c = raw[i];
        if (c == quote) break;
        if (quote == '"' && c == '\\' && i + 1 < raw.size() &&
            std::strchr("\\\"$`", raw[i + 1]) != nullptr) {
            value.push_back(raw[++i]);
            continue;
        }
        value.push_back(c);
    }
    if (i >= raw.size()) return false;  // no closing quote
    for (std::size_t j = i + 1; j < raw.size(); ++j)
        if (raw[j] != ' ' && raw[j] != '\t') return false;
    return true;
}

std::string trim(const std::string& text) {
    const std::size_t first = text.find_first_not_of(" \t\r\n");
    if (first == std::string::npos) return "";
    const std::size_t last = text.find_last_not_of(" \t\r\n");
    return text.substr(first, last - first + 1);
}

unsigned char zeroSum(const unsigned char* p, std::size_t n) {
    unsigned int sum = 0;
    for (std::size_t i = 0; i < n; ++i) sum += p[i];
    return static_cast<unsigned char>(0x100 - (sum & 0xFF));
}

}  // namespace

std::string OsRelease::displayName() const {
    if (!prettyName.empty()) return prettyName;
    if (!name.empty() && !version.empty()) return name + " " + version;
    if (!name.empty()) return name;
    if (!version.empty()) return version;
    return "Linux";
}

OsRelease parseOsRelease(const std::string& text) {
    OsRelease release;
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        line = trim(line);
        if (line.empty() || line[0] == '#') continue;
        const std::size_t equals = line.find('=');
        if (equals == std::string::npos) continue;
        const std::string key = line.substr(0, equals);
        std::string value;
        if (!validKey(key) || !unquote(line.substr(equals + 1), value)) continue;
        if (key == "NAME") release.name = value;
        else if (key == "VERSION") release.version = value;
        else if (key == "PRETTY_NAME") release.prettyName = value;
        else if (key == "ID") release.id = value;
        else if (key == "VERSION_ID") release.versionId = value;
    }
    return release;
}

OsRelease readOsRelease() {
    std::string text;
    if (readWhole(etcOsRelease, text) || readWhole(usrOsRelease, text)) return parseOsRelease(text);
    return OsRelease();
}

std::string kernelRelease() {
    struct utsname names;
    std::memset(&names, 0, sizeof names);
    if (qelPlatform::platform().uname(&names) != 0) return "";
    return std::string(names.release, strnlen(names.release, sizeof names.release));
}

std::string biosVersion() {
    try {
        qelSmbios::QelSmbios table;
        qelSmbios::SmbiosStructHeader* bios = table.getFirstEntry(qelSmbios::BiosInformation);
        // The version's string number is byte 5 of the formatted area.
        if (bios == nullptr || bios->length < 6) return "";
        const unsigned char number = reinterpret_cast<const unsigned char*>(bios)[5];
        if (number == 0) return "";
        return qelSmbios::QelSmbios::getSmbiosStringS(bios, number);
    } catch (const std::logic_error&) {
        return "";
    }
}

std::string kernelIpmiWatchdog() {
    struct stat info;
    if (::stat(qelPlatform::platform().path("/sys/module/ipmi_watchdog").c_str(), &info) == 0)
        return "ipmi_watchdog module";
    const std::string classDir = qelPlatform::platform().path("/sys/class/watchdog");
    DIR* dir = ::opendir(classDir.c_str());
    if (dir == nullptr) return "";
    std::string found;
    while (struct dirent* entry = ::readdir(dir)) {
        if (entry->d_name[0] == '.') continue;
        std::string identity;
        if (!readWhole(std::string("/sys/class/watchdog/") + entry->d_name + "/identity", identity)) continue;
        if (trim(identity) == "IPMI") {
            found = std::string(entry->d_name) + " (IPMI)";
            break;
        }
    }
    ::closedir(dir);
    return found;
}

std::string bootId() {
    std::string text;
    if (!readWhole("/proc/sys/kernel/random/boot_id", text)) return "";
    return trim(text.substr(0, text.find('\n')));
}

std::string firmwareTablesImage() {
    std::string entry, table;
    if (!readWhole(sysfsEntryPoint, entry) || !readWhole(sysfsTable, table)) return "";
    // Only the entry point's kind matters: the table itself comes from its
    // own file, and its structures are counted here.
    const bool known = entry.compare(0, 4, "_SM_") == 0 || entry.compare(0, 5, "_SM3_") == 0;
    if (!known) return "";
    std::string majorMinor = "\x02\x08";
    if (entry.compare(0, 4, "_SM_") == 0 && entry.size() >= 8) majorMinor = entry.substr(6, 2);
    else if (entry.compare(0, 5, "_SM3_") == 0 && entry.size() >= 9) majorMinor = entry.substr(7, 2);

    // Walk the structures: header, formatted area, strings up to a double
    // NUL. Stop at the end-of-table structure, at anything malformed, and at
    // the 32-bit entry point's limit.
    const auto* bytes = reinterpret_cast<const unsigned char*>(table.data());
    std::size_t offset = 0, kept = 0;
    unsigned int count = 0, largest = 0;
    while (offset + 4 <= table.size()) {
        const unsigned char type = bytes[offset];
        const unsigned char length = bytes[offset + 1];
        if (length < 4 || offset + length > table.size()) break;
        std::size_t end = offset + length;
        while (end + 1 < table.size() && !(bytes[end] == 0 && bytes[end + 1] == 0)) ++end;
        if (end + 1 >= table.size()) break;  // strings run past the table
        end += 2;
        if (end > longestTable) break;
        ++count;
        largest = std::max<unsigned int>(largest, static_cast<unsigned int>(end - offset));
        kept = end;
        offset = end;
        if (type == qelSmbios::EndOfTable) break;
    }
    if (count == 0) return "";

    std::string image(imageTableAddress, '\0');
    auto* ep = reinterpret_cast<unsigned char*>(&image[0]);
    std::memcpy(ep, "_SM_", 4);
    ep[5] = 0x1F;
    ep[6] = static_cast<unsigned char>(majorMinor[0]);
    ep[7] = static_cast<unsigned char>(majorMinor[1]);
    ep[8] = static_cast<unsigned char>(std::min(largest, 0xFFFFu) & 0xFF);
    ep[9] = static_cast<unsigned char>(std::min(largest, 0xFFFFu) >> 8);
    std::memcpy(ep + 16, "_DMI_", 5);
    ep[22] = static_cast<unsigned char>(kept & 0xFF);
    ep[23] = static_cast<unsigned char>(kept >> 8);
    ep[24] = static_cast<unsigned char>(imageTableAddress & 0xFF);
    ep[25] = static_cast<unsigned char>((imageTableAddress >> 8) & 0xFF);
    ep[28] = static_cast<unsigned char>(count & 0xFF);
    ep[29] = static_cast<unsigned char>(count >> 8);
    ep[30] = static_cast<unsigned char>(((majorMinor[0] & 0x0F) << 4) | (majorMinor[1] & 0x0F));
    ep[21] = zeroSum(ep + 16, 15);
    ep[4] = zeroSum(ep, 0x1F);
    image.append(table, 0, kept);
    // The reader takes the device in whole blocks and seeks back to the
    // table, which a stream refuses after a short read: pad to whole blocks.
    image.resize((image.size() + imageBlock - 1) / imageBlock * imageBlock, '\0');
    return image;
}

namespace {

class ImagePlatform : public qelPlatform::Platform {
public:
    explicit ImagePlatform(std::string image) : image_(std::move(image)) {}
    std::string path(const std::string& fixed) const override {
        return fixed == "/dev/mem" ? image_ : qelPlatform::Platform::path(fixed);
    }

private:
    std::string image_;
};

}  // namespace

bool withFirmwareTables(const std::function<void()>& work) {
    const std::string image = firmwareTablesImage();
    if (image.empty()) return false;
    const int fd = ::memfd_create("qel-firmware-tables", MFD_CLOEXEC);
    if (fd < 0) return false;
    const bool written = ::write(fd, image.data(), image.size()) == static_cast<ssize_t>(image.size());
    if (written) {
        ImagePlatform platform("/proc/self/fd/" + std::to_string(fd));
        qelPlatform::Platform* previous = qelPlatform::setPlatform(&platform);
        try {
            work();
        } catch (...) {
            qelPlatform::setPlatform(previous);
            ::close(fd);
            throw;
        }
        qelPlatform::setPlatform(previous);
    }
    ::close(fd);
    return written;
}

}  // namespace qelHostFacts
