// Description keywords of the simulated FRU storage: the PNI device's image
// from a file and its id, and other FRU devices beside it. With them a
// controller process (qel-bmcsim) holds any image a test or a script built,
// for the library and for unmodified FRU tools alike.
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include "qelSimDescription.h"
#include "qelSimFru.h"

namespace qelSim {

namespace {

// The largest image Read FRU Data can address (16-bit offsets).
constexpr std::size_t maxImageSize = 0xFFFF;

// The bytes of `path`, or "" for "none"; errors name `keyword`.
Bytes readImageFile(const std::string& keyword, const std::string& path) {
    if (path == "none") return {};
    std::ifstream in(path, std::ios::binary);
    if (!in) throw std::invalid_argument(keyword + ": " + path + ": " + std::strerror(errno));
    Bytes image((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (in.bad()) throw std::invalid_argument(keyword + ": " + path + ": read error");
    if (image.empty()) throw std::invalid_argument(keyword + ": " + path + " is empty");
    if (image.size() > maxImageSize)
        throw std::invalid_argument(keyword + ": " + path + " holds " + std::to_string(image.size()) +
                                    " bytes, above the 65535 a FRU device can address");
    return image;
}

}  // namespace

void registerFruKeywords(SimBmc& bmc) {
    SimBmc* b = &bmc;
    bmc.addKeyword("fru-image",
                   "fru-image FILE|none: the FRU device's image is FILE's bytes (binary, up to 65535; "
                   "an absolute path, the daemon runs in /), or no image",
                   [b](const std::vector<std::string>& w) {
                       if (w.size() != 1) throw std::invalid_argument("fru-image takes 1 word");
                       // Read before touching the device: a bad file leaves the old image.
                       b->fru().setImage(readImageFile("fru-image", w[0]));
                   });
    bmc.addKeyword("fru-device-id", "fru-device-id N: the FRU device's id (decimal, 0-255)",
                   [b](const std::vector<std::string>& w) {
                       if (w.size() != 1) throw std::invalid_argument("fru-device-id takes 1 word");
                       b->fru().setDeviceId(static_cast<unsigned char>(parseNumber(w[0], 255)));
                   });
    bmc.addKeyword("fru-other",
                   "fru-other N FILE|none: another FRU device, id N (decimal), with FILE's bytes (the "
                   "controller's own FRU 0, say), or without it",
                   [b](const std::vector<std::string>& w) {
                       if (w.size() != 2) throw std::invalid_argument("fru-other takes 2 words");
                       const auto id = static_cast<unsigned char>(parseNumber(w[0], 255));
                       b->fru().setOtherDevice(id, readImageFile("fru-other", w[1]));
                   });
}

}  // namespace qelSim
