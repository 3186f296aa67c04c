#include "KinbookKit/records/LinkService.h"

#include "KinbookKit/text/Ascii.h"

#include <unicode/utf8.h>

#include <array>
#include <cstdint>
#include <utility>
#include <vector>

namespace kinbook {
namespace {

// How much of a profile address's path has to be the profile. A web address
// found on a card must be the profile itself, or a post link would vanish
// from the card's web addresses. A handle pasted into a service's field may
// be any page of the account (a post, a repository), whose owner is meant.
enum class PathReading { wholePath, leadingPart };

// A web address taken apart just far enough to read a handle from it.
struct ProfileAddress {
    std::string host;                  // lower-cased, without port, user info, "www." or "m."
    std::vector<std::string> segments; // the path's non-empty segments, percent-decoded
    std::string query;                 // raw, without "?"
    std::string fragment;              // raw, without "#"
};

using HandleReader = std::optional<std::string> (*)(const ProfileAddress&, PathReading);

struct ServiceInfo {
    LinkService service;
    std::string_view name;
    std::string_view displayName;
    std::string_view icon;
    std::string_view placeholder;
    std::span<const std::string_view> hosts;
    HandleReader readHandle;
};

// ---------------------------------------------------------------------------
// Text helpers

// White space as a pasted text may carry it: ASCII, the no-break spaces that
// web pages put around names, and the Unicode line and space separators.
bool isUnicodeSpace(UChar32 c) {
    return c == 0x20 || (c >= 0x09 && c <= 0x0D) || c == 0x85 || c == 0xA0 || c == 0x1680 ||
           (c >= 0x2000 && c <= 0x200A) || c == 0x2028 || c == 0x2029 || c == 0x202F || c == 0x205F ||
           c == 0x3000;
}

std::string_view trimWhitespace(std::string_view text) {
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(text.data());
    const auto length = static_cast<std::int32_t>(text.size());
    std::int32_t start = 0;
    while (start < length) {
        std::int32_t next = start;
        UChar32 c = 0;
        U8_NEXT(bytes, next, length, c);
        if (c < 0 || !isUnicodeSpace(c)) {
            break;
        }
        start = next;
    }
    std::int32_t end = length;
    while (end > start) {
        std::int32_t previous = end;
        UChar32 c = 0;
        U8_PREV(bytes, start, previous, c);
        if (c < 0 || !isUnicodeSpace(c)) {
            break;
        }
        end = previous;
    }
    return text.substr(static_cast<std::size_t>(start), static_cast<std::size_t>(end - start));
}

bool isValidUTF8(std::string_view text) {
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(text.data());
    const auto length = static_cast<std::int32_t>(text.size());
    std::int32_t i = 0;
    while (i < length) {
        UChar32 c = 0;
        U8_NEXT(bytes, i, length, c);
        if (c < 0) {
            return false;
        }
    }
    return true;
}

std::string digitsOf(std::string_view text) {
    std::string digits;
    for (char c : text) {
        if (isAsciiDigit(c)) {
            digits.push_back(c);
        }
    }
    return digits;
}

int hexValue(char c) {
    if (isAsciiDigit(c)) {
        return c - '0';
    }
    const char lower = asciiLower(c);
    if (lower >= 'a' && lower <= 'f') {
        return lower - 'a' + 10;
    }
    return -1;
}

// "%XY" sequences become their byte; a "%" that starts no such sequence is
// kept as it is, the way browsers treat it.
std::string percentDecoded(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size() && hexValue(text[i + 1]) >= 0 &&
            hexValue(text[i + 2]) >= 0) {
            out.push_back(static_cast<char>(hexValue(text[i + 1]) * 16 + hexValue(text[i + 2])));
            i += 2;
        } else {
            out.push_back(text[i]);
        }
    }
    return out;
}

bool isUnreserved(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || isAsciiDigit(c) || c == '-' || c == '.' ||
           c == '_' || c == '~';
}

// A path segment may hold the unreserved characters, the sub-delimiters, ":"
// and "@" as they are (RFC 3986, section 3.3); "/" is encoded so that a handle
// stays one segment.
bool allowedInPathSegment(char c) {
    return isUnreserved(c) || std::string_view("!$&'()*+,;=:@").find(c) != std::string_view::npos;
}

// A query value keeps only the unreserved characters, so that "&", "=", "+"
// and "#" in a handle cannot end or change the value.
bool allowedInQueryValue(char c) {
    return isUnreserved(c) || c == '@' || c == ':';
}

// Text that is not valid UTF-8 cannot be percent-encoded as a URL expects;
// it is kept raw rather than dropped.
std::string percentEncoded(std::string_view text, bool (*allowed)(char)) {
    if (!isValidUTF8(text)) {
        return std::string(text);
    }
    static constexpr char kHex[] = "0123456789ABCDEF";
    std::string out;
    out.reserve(text.size());
    for (char c : text) {
        if (allowed(c)) {
            out.push_back(c);
        } else {
            const auto byte = static_cast<std::uint8_t>(c);
            out.push_back('%');
            out.push_back(kHex[byte >> 4]);
            out.push_back(kHex[byte & 0x0F]);
        }
    }
    return out;
}

std::vector<std::string> decodedSegments(std::string_view path) {
    std::vector<std::string> segments;
    std::size_t start = 0;
    while (start <= path.size()) {
        std::size_t end = path.find('/', start);
        if (end == std::string_view::npos) {
            end = path.size();
        }
        if (end > start) {
            segments.push_back(percentDecoded(path.substr(start, end - start)));
        }
        start = end + 1;
    }
    return segments;
}

// The percent-decoded value of the first query item named `key`.
std::optional<std::string> queryValue(std::string_view query, std::string_view key) {
    std::size_t start = 0;
    while (start <= query.size()) {
        std::size_t end = query.find('&', start);
        if (end == std::string_view::npos) {
            end = query.size();
        }
        const std::string_view item = query.substr(start, end - start);
        const std::size_t equals = item.find('=');
        if (equals != std::string_view::npos && equalsIgnoringAsciiCase(item.substr(0, equals), key)) {
            return percentDecoded(item.substr(equals + 1));
        }
        start = end + 1;
    }
    return std::nullopt;
}

// Subdomains that serve the same profile pages as one of the counted hosts.
constexpr std::array<std::pair<std::string_view, std::string_view>, 3> kHostAliases{{
    {"api.whatsapp.com", "whatsapp.com"},
    {"web.whatsapp.com", "whatsapp.com"},
    {"mobile.twitter.com", "twitter.com"},
}};

std::optional<ProfileAddress> parseProfileAddress(std::string_view text) {
    text = trimWhitespace(text);
    std::string withScheme;
    if (text.find("://") == std::string_view::npos) {
        withScheme = "https://";
    }
    withScheme.append(text);
    const std::string_view url = withScheme;

    const std::size_t schemeEnd = url.find("://");
    if (schemeEnd == 0) {
        return std::nullopt;
    }
    for (std::size_t i = 0; i < schemeEnd; ++i) {
        const char c = url[i];
        const bool letter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
        if (!letter && (i == 0 || (!isAsciiDigit(c) && c != '+' && c != '-' && c != '.'))) {
            return std::nullopt;
        }
    }
    const std::size_t authorityStart = schemeEnd + 3;
    std::size_t authorityEnd = url.find_first_of("/?#", authorityStart);
    if (authorityEnd == std::string_view::npos) {
        authorityEnd = url.size();
    }
    std::string_view authority = url.substr(authorityStart, authorityEnd - authorityStart);
    if (const std::size_t at = authority.rfind('@'); at != std::string_view::npos) {
        authority.remove_prefix(at + 1);
    }
    std::string_view hostText;
    if (!authority.empty() && authority.front() == '[') {
        const std::size_t close = authority.find(']');
        hostText = authority.substr(0, close == std::string_view::npos ? authority.size() : close + 1);
    } else {
        hostText = authority.substr(0, authority.find(':'));
    }

    ProfileAddress address;
    for (char c : hostText) {
        address.host.push_back(asciiLower(c));
    }
    // A fully qualified name ends in a dot; it names the same host.
    if (!address.host.empty() && address.host.back() == '.') {
        address.host.pop_back();
    }
    if (address.host.starts_with("www.")) {
        address.host.erase(0, 4);
    } else if (address.host.starts_with("m.")) {
        address.host.erase(0, 2);
    }
    for (const auto& [alias, host] : kHostAliases) {
        if (address.host == alias) {
            address.host = host;
        }
    }
    if (address.host.empty()) {
        return std::nullopt;
    }

    std::string_view rest = url.substr(authorityEnd);
    if (const std::size_t hash = rest.find('#'); hash != std::string_view::npos) {
        address.fragment = rest.substr(hash + 1);
        rest = rest.substr(0, hash);
    }
    if (const std::size_t question = rest.find('?'); question != std::string_view::npos) {
        address.query = rest.substr(question + 1);
        rest = rest.substr(0, question);
    }
    address.segments = decodedSegments(rest);
    return address;
}

// A handle read from an address is a single word: white space or control
// characters there mean the address was not a profile.
std::optional<std::string> usableHandle(std::string handle) {
    if (handle.empty()) {
        return std::nullopt;
    }
    for (char c : handle) {
        if (isAsciiSpace(c) || static_cast<std::uint8_t>(c) < 0x20 || c == 0x7F) {
            return std::nullopt;
        }
    }
    return handle;
}

// ---------------------------------------------------------------------------
// Handle readers, one per address shape

bool isReserved(std::string_view segment, std::span<const std::string_view> reserved) {
    for (std::string_view word : reserved) {
        if (equalsIgnoringAsciiCase(segment, word)) {
            return true;
        }
    }
    return false;
}

// "/" + handle, the shape of most services. Page names that are not
// accounts (share dialogs, search, settings) are refused.
std::optional<std::string> leadingSegmentHandle(const std::vector<std::string>& segments, PathReading reading,
                                                std::span<const std::string_view> reserved) {
    if (segments.empty() || (reading == PathReading::wholePath && segments.size() != 1)) {
        return std::nullopt;
    }
    if (isReserved(segments[0], reserved)) {
        return std::nullopt;
    }
    std::string_view handle = segments[0];
    if (handle.starts_with('@')) {
        handle.remove_prefix(1);
    }
    return usableHandle(std::string(handle));
}

// "/@" + handle.
std::optional<std::string> atSegmentHandle(const ProfileAddress& address, PathReading reading) {
    const auto& segments = address.segments;
    if (segments.empty() || (reading == PathReading::wholePath && segments.size() != 1)) {
        return std::nullopt;
    }
    if (!segments[0].starts_with('@')) {
        return std::nullopt;
    }
    return usableHandle(segments[0].substr(1));
}

// "/" + word + "/" + handle.
std::optional<std::string> wordThenHandle(const ProfileAddress& address, PathReading reading,
                                          std::string_view word) {
    const auto& segments = address.segments;
    if (segments.size() < 2 || !equalsIgnoringAsciiCase(segments[0], word)) {
        return std::nullopt;
    }
    if (reading == PathReading::wholePath && segments.size() != 2) {
        return std::nullopt;
    }
    return usableHandle(segments[1]);
}

// A phone as the messengers write it in addresses: international digits,
// with or without the "+".
std::optional<std::string> internationalPhone(std::string_view text) {
    if (!looksLikePhone(text)) {
        return std::nullopt;
    }
    return "+" + digitsOf(text);
}

std::optional<std::string> readSignal(const ProfileAddress& address, PathReading) {
    // The phone sits in the fragment ("#p/+phone"), which never reaches the
    // server; username links ("#eu/...") are opaque and name no handle.
    if (!address.segments.empty() || !address.fragment.starts_with("p/")) {
        return std::nullopt;
    }
    return usableHandle(percentDecoded(std::string_view(address.fragment).substr(2)));
}

std::optional<std::string> readWhatsApp(const ProfileAddress& address, PathReading reading) {
    const auto& segments = address.segments;
    if (segments.empty()) {
        return std::nullopt;
    }
    if (equalsIgnoringAsciiCase(segments[0], "send")) {
        const auto phone = queryValue(address.query, "phone");
        return phone ? internationalPhone(*phone) : std::nullopt;
    }
    if (reading == PathReading::wholePath && segments.size() != 1) {
        return std::nullopt;
    }
    // Short links name the number without "+"; business links
    // ("/message/CODE") name no number and are refused here.
    return internationalPhone(segments[0]);
}

constexpr std::string_view kTelegramReserved[] = {
    "joinchat", "addstickers", "addemoji",     "addtheme", "addlist", "share",
    "proxy",    "socks",       "setlanguage",  "login",    "c",       "s",
    "iv",       "bg",          "confirmphone", "boost",    "invoice",
};

std::optional<std::string> readTelegram(const ProfileAddress& address, PathReading reading) {
    const auto& segments = address.segments;
    if (segments.size() >= 2 && segments[0] == "s") { // the public preview of a channel
        return wordThenHandle(address, reading, "s");
    }
    if (segments.empty() || (reading == PathReading::wholePath && segments.size() != 1)) {
        return std::nullopt;
    }
    const std::string& first = segments[0];
    if (first.starts_with('+')) {
        // "+digits" is a phone; "+" and letters is a group invitation.
        const std::string_view number = std::string_view(first).substr(1);
        if (number.empty() || digitsOf(number).size() != number.size()) {
            return std::nullopt;
        }
        return internationalPhone(number);
    }
    return leadingSegmentHandle(segments, reading, kTelegramReserved);
}

constexpr std::string_view kInstagramReserved[] = {
    "p",     "reel",      "reels",   "tv",    "explore", "stories", "accounts", "direct",
    "about", "developer", "privacy", "legal", "web",     "emails",  "session",  "challenge",
};

std::optional<std::string> readInstagram(const ProfileAddress& address, PathReading reading) {
    return leadingSegmentHandle(address.segments, reading, kInstagramReserved);
}

constexpr std::string_view kFacebookReserved[] = {
    "sharer",     "sharer.php", "share",       "share.php", "dialog",   "login",     "login.php",
    "logout.php", "home.php",   "groups",      "events",    "pages",    "watch",     "marketplace",
    "gaming",     "help",       "policies",    "privacy",   "settings", "messages",  "notifications",
    "friends",    "photo",      "photo.php",   "photos",    "videos",   "story.php", "permalink.php",
    "hashtag",    "search",     "plugins",     "l.php",     "business", "ads",       "reel",
    "stories",    "bookmarks",  "fundraisers", "media",     "tr",
};

std::optional<std::string> readFacebook(const ProfileAddress& address, PathReading reading) {
    const auto& segments = address.segments;
    if (!segments.empty() && equalsIgnoringAsciiCase(segments[0], "profile.php")) {
        // Accounts without a user name are addressed by number; the number
        // is also a valid "/" + handle address.
        if (reading == PathReading::wholePath && segments.size() != 1) {
            return std::nullopt;
        }
        const auto id = queryValue(address.query, "id");
        return id ? usableHandle(*id) : std::nullopt;
    }
    if (!segments.empty() && equalsIgnoringAsciiCase(segments[0], "people")) {
        // "/people/Display-Name/number"
        if (segments.size() < 3 || (reading == PathReading::wholePath && segments.size() != 3)) {
            return std::nullopt;
        }
        return usableHandle(segments[2]);
    }
    return leadingSegmentHandle(segments, reading, kFacebookReserved);
}

std::optional<std::string> readLinkedIn(const ProfileAddress& address, PathReading reading) {
    const auto& segments = address.segments;
    if (segments.size() >= 2 && equalsIgnoringAsciiCase(segments[0], "pub")) {
        // Old public profiles trail three number segments after the name;
        // "/pub/dir/..." is the member directory, not a profile.
        if (equalsIgnoringAsciiCase(segments[1], "dir")) {
            return std::nullopt;
        }
        return usableHandle(segments[1]);
    }
    return wordThenHandle(address, reading, "in");
}

constexpr std::string_view kXReserved[] = {
    "i",       "intent",   "share",    "home",          "explore",  "search",
    "hashtag", "settings", "messages", "notifications", "compose",  "login",
    "logout",  "signup",   "tos",      "privacy",       "download", "jobs",
};

std::optional<std::string> readX(const ProfileAddress& address, PathReading reading) {
    // Addresses copied before 2012 carried the path in a "#!" fragment.
    if (address.segments.empty() && address.fragment.starts_with("!/")) {
        return leadingSegmentHandle(decodedSegments(std::string_view(address.fragment).substr(1)), reading,
                                    kXReserved);
    }
    return leadingSegmentHandle(address.segments, reading, kXReserved);
}

std::optional<std::string> readBluesky(const ProfileAddress& address, PathReading reading) {
    return wordThenHandle(address, reading, "profile");
}

std::optional<std::string> readMastodon(const ProfileAddress& address, PathReading reading) {
    const auto user = atSegmentHandle(address, reading);
    if (!user) {
        return std::nullopt;
    }
    // "/@user@home.server" is a remote account viewed from this server.
    if (user->find('@') != std::string::npos) {
        return user;
    }
    return *user + "@" + address.host;
}

constexpr std::string_view kGitHubReserved[] = {
    "orgs",      "settings",      "features", "pricing",     "about",  "login",      "logout",
    "join",      "signup",        "explore",  "marketplace", "topics", "trending",   "collections",
    "sponsors",  "notifications", "new",      "search",      "apps",   "enterprise", "team",
    "security",  "site",          "contact",  "pulls",       "issues", "codespaces", "organizations",
    "dashboard", "stars",         "account",  "readme",
};

std::optional<std::string> readGitHub(const ProfileAddress& address, PathReading reading) {
    return leadingSegmentHandle(address.segments, reading, kGitHubReserved);
}

// ---------------------------------------------------------------------------
// The table

constexpr std::string_view kSignalHosts[] = {"signal.me"};
constexpr std::string_view kWhatsAppHosts[] = {"wa.me", "whatsapp.com"};
constexpr std::string_view kTelegramHosts[] = {"t.me", "telegram.me"};
constexpr std::string_view kInstagramHosts[] = {"instagram.com"};
constexpr std::string_view kFacebookHosts[] = {"facebook.com", "fb.com"};
constexpr std::string_view kLinkedInHosts[] = {"linkedin.com"};
constexpr std::string_view kXHosts[] = {"x.com", "twitter.com"};
constexpr std::string_view kThreadsHosts[] = {"threads.net", "threads.com"};
constexpr std::string_view kBlueskyHosts[] = {"bsky.app"};
constexpr std::string_view kTikTokHosts[] = {"tiktok.com"};
constexpr std::string_view kYouTubeHosts[] = {"youtube.com"};
constexpr std::string_view kGitHubHosts[] = {"github.com"};

constexpr std::string_view kMessengerIcon = "bubble.left.and.bubble.right.fill";
constexpr std::string_view kProfileIcon = "person.crop.square.fill";
constexpr std::string_view kVideoIcon = "play.rectangle.fill";

const std::array<ServiceInfo, 13> kServices{{
    {LinkService::signal, "signal", "Signal", kMessengerIcon, "Phone number", kSignalHosts, readSignal},
    {LinkService::whatsapp, "whatsapp", "WhatsApp", kMessengerIcon, "Phone number", kWhatsAppHosts,
     readWhatsApp},
    {LinkService::telegram, "telegram", "Telegram", kMessengerIcon, "Username or phone", kTelegramHosts,
     readTelegram},
    {LinkService::instagram, "instagram", "Instagram", "camera.fill", "Username", kInstagramHosts,
     readInstagram},
    {LinkService::facebook, "facebook", "Facebook", kProfileIcon, "Username", kFacebookHosts, readFacebook},
    {LinkService::linkedin, "linkedin", "LinkedIn", kProfileIcon, "Username", kLinkedInHosts, readLinkedIn},
    {LinkService::x, "twitter", "X", kProfileIcon, "Username", kXHosts, readX},
    {LinkService::threads, "threads", "Threads", kProfileIcon, "Username", kThreadsHosts, atSegmentHandle},
    {LinkService::bluesky, "bluesky", "Bluesky", kProfileIcon, "name.bsky.social", kBlueskyHosts,
     readBluesky},
    {LinkService::mastodon, "mastodon", "Mastodon", kProfileIcon, "user@server", {}, readMastodon},
    {LinkService::tiktok, "tiktok", "TikTok", kVideoIcon, "Username", kTikTokHosts, atSegmentHandle},
    {LinkService::youtube, "youtube", "YouTube", kVideoIcon, "Username", kYouTubeHosts, atSegmentHandle},
    {LinkService::github, "github", "GitHub", "chevron.left.forwardslash.chevron.right", "Username",
     kGitHubHosts, readGitHub},
}};

constexpr std::array<LinkService, 13> kAllServices{
    LinkService::signal,   LinkService::whatsapp, LinkService::telegram, LinkService::instagram,
    LinkService::facebook, LinkService::linkedin, LinkService::x,        LinkService::threads,
    LinkService::bluesky,  LinkService::mastodon, LinkService::tiktok,   LinkService::youtube,
    LinkService::github,
};

const ServiceInfo& info(LinkService service) {
    const auto index = static_cast<std::size_t>(service);
    // An enum value outside the declared cases can only come from a cast;
    // it reads as the first service rather than past the table.
    return index < kServices.size() ? kServices[index] : kServices[0];
}

bool servesHost(const ServiceInfo& service, std::string_view host) {
    for (std::string_view known : service.hosts) {
        if (host == known) {
            return true;
        }
    }
    return false;
}

// The handle in a profile address of one given service. Mastodon accepts
// any host, since its servers are countless.
std::optional<std::string> handleFromAddress(LinkService service, std::string_view text,
                                             PathReading reading) {
    const auto address = parseProfileAddress(text);
    if (!address) {
        return std::nullopt;
    }
    const ServiceInfo& entry = info(service);
    if (service != LinkService::mastodon && !servesHost(entry, address->host)) {
        return std::nullopt;
    }
    return entry.readHandle(*address, reading);
}

} // namespace

std::span<const LinkService> allLinkServices() {
    return kAllServices;
}

std::string_view serviceName(LinkService service) {
    return info(service).name;
}

std::string_view displayName(LinkService service) {
    return info(service).displayName;
}

std::string_view iconName(LinkService service) {
    return info(service).icon;
}

std::string_view handlePlaceholder(LinkService service) {
    return info(service).placeholder;
}

std::span<const std::string_view> recognisedHosts(LinkService service) {
    return info(service).hosts;
}

std::optional<LinkService> serviceNamed(std::string_view name) {
    name = trimWhitespace(name);
    if (name.empty()) {
        return std::nullopt;
    }
    for (const ServiceInfo& entry : kServices) {
        if (equalsIgnoringAsciiCase(name, entry.name) || equalsIgnoringAsciiCase(name, entry.displayName)) {
            return entry.service;
        }
    }
    return std::nullopt;
}

bool looksLikePhone(std::string_view text) {
    if (text.empty()) {
        return false;
    }
    std::size_t digits = 0;
    for (char c : text) {
        if (isAsciiDigit(c)) {
            ++digits;
        } else if (std::string_view("+ ()-.").find(c) == std::string_view::npos) {
            return false;
        }
    }
    return digits > 6;
}

std::optional<std::string> phoneForLink(std::string_view text) {
    if (!looksLikePhone(text)) {
        return std::nullopt;
    }
    const std::string digits = digitsOf(text);
    const std::size_t firstNonSpace = text.find_first_not_of(' ');
    if (firstNonSpace != std::string_view::npos && text[firstNonSpace] == '+') {
        return "+" + digits;
    }
    if (digits.size() == 10) {
        return "+1" + digits;
    }
    if (digits.size() == 11 && digits.front() == '1') {
        return "+" + digits;
    }
    if (digits.starts_with("00")) {
        return "+" + digits.substr(2);
    }
    return "+" + digits;
}

std::string cleanHandle(std::string_view text, LinkService service) {
    std::string handle(trimWhitespace(text));
    if (handle.find('/') != std::string::npos) {
        if (auto found = handleFromAddress(service, handle, PathReading::leadingPart)) {
            handle = std::move(*found);
        }
    }
    if (handle.starts_with('@')) {
        handle.erase(0, 1);
    }
    if (service != LinkService::mastodon) {
        std::erase(handle, ' ');
    }
    return handle;
}

std::optional<std::string> webURL(const LinkedAccount& link) {
    const std::string cleaned = cleanHandle(link.handle, link.service);
    if (cleaned.empty()) {
        return std::nullopt;
    }
    const std::string handle = percentEncoded(cleaned, allowedInPathSegment);
    switch (link.service) {
    case LinkService::signal: {
        const auto phone = phoneForLink(cleaned);
        if (!phone) {
            return std::nullopt;
        }
        return "https://signal.me/#p/" + *phone;
    }
    case LinkService::whatsapp: {
        const auto phone = phoneForLink(cleaned);
        if (!phone) {
            return std::nullopt;
        }
        return "https://wa.me/" + phone->substr(1);
    }
    case LinkService::telegram:
        if (looksLikePhone(cleaned)) {
            return "https://t.me/" + *phoneForLink(cleaned);
        }
        return "https://t.me/" + handle;
    case LinkService::instagram:
        return "https://www.instagram.com/" + handle;
    case LinkService::facebook:
        return "https://www.facebook.com/" + handle;
    case LinkService::linkedin:
        return "https://www.linkedin.com/in/" + handle;
    case LinkService::x:
        return "https://x.com/" + handle;
    case LinkService::threads:
        return "https://www.threads.net/@" + handle;
    case LinkService::bluesky:
        return "https://bsky.app/profile/" + handle;
    case LinkService::mastodon: {
        const std::size_t at = handle.find('@');
        if (at == std::string::npos || at == 0 || at + 1 == handle.size() ||
            handle.find('@', at + 1) != std::string::npos) {
            return std::nullopt;
        }
        return "https://" + handle.substr(at + 1) + "/@" + handle.substr(0, at);
    }
    case LinkService::tiktok:
        return "https://www.tiktok.com/@" + handle;
    case LinkService::youtube:
        return "https://www.youtube.com/@" + handle;
    case LinkService::github:
        return "https://github.com/" + handle;
    }
    return std::nullopt;
}

std::optional<std::string> appURL(const LinkedAccount& link) {
    const std::string cleaned = cleanHandle(link.handle, link.service);
    if (cleaned.empty()) {
        return std::nullopt;
    }
    const std::string handle = percentEncoded(cleaned, allowedInQueryValue);
    switch (link.service) {
    case LinkService::signal: {
        const auto phone = phoneForLink(cleaned);
        if (!phone) {
            return std::nullopt;
        }
        return "sgnl://signal.me/#p/" + *phone;
    }
    case LinkService::whatsapp: {
        const auto phone = phoneForLink(cleaned);
        if (!phone) {
            return std::nullopt;
        }
        return "whatsapp://send?phone=" + phone->substr(1);
    }
    case LinkService::telegram:
        if (looksLikePhone(cleaned)) {
            return "tg://resolve?phone=" + phoneForLink(cleaned)->substr(1);
        }
        return "tg://resolve?domain=" + handle;
    case LinkService::instagram:
        return "instagram://user?username=" + handle;
    case LinkService::x:
        return "twitter://user?screen_name=" + handle;
    case LinkService::facebook:
    case LinkService::linkedin:
    case LinkService::threads:
    case LinkService::bluesky:
    case LinkService::mastodon:
    case LinkService::tiktok:
    case LinkService::youtube:
    case LinkService::github:
        return std::nullopt;
    }
    return std::nullopt;
}

std::optional<RecognisedLink> recognise(std::string_view url) {
    const auto address = parseProfileAddress(url);
    if (!address) {
        return std::nullopt;
    }
    for (const ServiceInfo& entry : kServices) {
        if (!servesHost(entry, address->host)) {
            continue;
        }
        if (auto handle = entry.readHandle(*address, PathReading::wholePath)) {
            return RecognisedLink{entry.service, std::move(*handle)};
        }
    }
    return std::nullopt;
}

std::string socialProfileURL(const LinkedAccount& link) {
    return webURL(link).value_or(std::string());
}

std::optional<LinkedAccount> linkFromSocialProfile(std::string_view entryID, std::string_view serviceName,
                                                   std::string_view userName, std::string_view url) {
    const auto service = serviceNamed(serviceName);
    if (!service) {
        const auto recognised = recognise(url);
        if (!recognised) {
            return std::nullopt;
        }
        return LinkedAccount{std::string(entryID), recognised->service, recognised->handle, false};
    }

    std::string handle(trimWhitespace(userName));
    const std::string_view address = trimWhitespace(url);
    if (handle.empty()) {
        // Profiles of services that have no address scheme store the user
        // name itself behind an "x-apple:" marker.
        if (startsWithIgnoringAsciiCase(address, "x-apple:")) {
            handle = percentDecoded(trimWhitespace(address.substr(8)));
        } else if (auto found = handleFromAddress(*service, address, PathReading::leadingPart)) {
            handle = std::move(*found);
        }
    } else if (*service == LinkService::mastodon && handle.find('@', 1) == std::string::npos) {
        // A Mastodon user name alone names no server; the profile's address
        // supplies it.
        if (auto found = handleFromAddress(*service, address, PathReading::leadingPart)) {
            handle = std::move(*found);
        }
    }
    if (handle.empty()) {
        return std::nullopt;
    }
    return LinkedAccount{std::string(entryID), *service, std::move(handle), false};
}

std::optional<LinkedAccount> linkFromMessagingAddress(std::string_view entryID, std::string_view serviceName,
                                                      std::string_view userName) {
    const auto service = serviceNamed(serviceName);
    const std::string_view handle = trimWhitespace(userName);
    if (!service || handle.empty()) {
        return std::nullopt;
    }
    return LinkedAccount{std::string(entryID), *service, std::string(handle), false};
}

std::optional<LinkedAccount> linkFromWebAddress(std::string_view entryID, std::string_view url) {
    auto recognised = recognise(url);
    if (!recognised) {
        return std::nullopt;
    }
    return LinkedAccount{std::string(entryID), recognised->service, std::move(recognised->handle), false};
}

std::string_view caseName(LinkService service) {
    switch (service) {
    case LinkService::signal:
        return "signal";
    case LinkService::whatsapp:
        return "whatsapp";
    case LinkService::telegram:
        return "telegram";
    case LinkService::instagram:
        return "instagram";
    case LinkService::facebook:
        return "facebook";
    case LinkService::linkedin:
        return "linkedin";
    case LinkService::x:
        return "x";
    case LinkService::threads:
        return "threads";
    case LinkService::bluesky:
        return "bluesky";
    case LinkService::mastodon:
        return "mastodon";
    case LinkService::tiktok:
        return "tiktok";
    case LinkService::youtube:
        return "youtube";
    case LinkService::github:
        return "github";
    }
    return "signal";
}

std::optional<LinkService> linkServiceFromCaseName(std::string_view name) {
    for (LinkService service : allLinkServices()) {
        if (caseName(service) == name) {
            return service;
        }
    }
    return std::nullopt;
}

} // namespace kinbook
