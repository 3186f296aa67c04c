#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace kinbook {

// The social and messaging services Kinbook shows as links. Declared order is
// also the order in which recognition tries them.
enum class LinkService {
    signal,
    whatsapp,
    telegram,
    instagram,
    facebook,
    linkedin,
    x,
    threads,
    bluesky,
    mastodon,
    tiktok,
    youtube,
    github,
};

// One social or messaging account of a person: a service and a handle.
struct LinkedAccount {
    std::string id; // the card entry it came from, or a fresh UUID for a new link
    LinkService service = LinkService::signal;
    std::string handle;
    bool isNew = false;

    bool operator==(const LinkedAccount&) const = default;
};

// Every service in declared order.
std::span<const LinkService> allLinkServices();

// The raw name used in stored social profiles ("twitter" for x).
std::string_view serviceName(LinkService service);
// The name shown to the user ("X" for x).
std::string_view displayName(LinkService service);
std::string_view iconName(LinkService service);
std::string_view handlePlaceholder(LinkService service);

// The service a social profile's service name names: matched, ignoring case,
// against the raw names and the display names. None for an unknown name.
std::optional<LinkService> serviceNamed(std::string_view name);

// True when the text is non-empty, made only of "+0123456789 ()-." and has
// more than 6 digits.
bool looksLikePhone(std::string_view text);

// The phone in international "+digits" form, or none when the text does not
// look like a phone.
std::optional<std::string> phoneForLink(std::string_view text);

// A handle as the user typed or pasted it, reduced to the bare handle: a
// pasted profile address gives its handle, a leading "@" goes, spaces go
// (Mastodon's user@server is kept as it is).
std::string cleanHandle(std::string_view text, LinkService service);

// The service's web profile address for the link, or none when the handle
// cannot make one.
std::optional<std::string> webURL(const LinkedAccount& link);

// The service's own application address for the link, or none.
std::optional<std::string> appURL(const LinkedAccount& link);

struct RecognisedLink {
    LinkService service;
    std::string handle;

    bool operator==(const RecognisedLink&) const = default;
};

// The service and handle of a profile address on a known service's host, or
// none.
std::optional<RecognisedLink> recognise(std::string_view url);

} // namespace kinbook
