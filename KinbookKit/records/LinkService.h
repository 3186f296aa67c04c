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

// Every function below is pure and thread-safe. None throws; text that is not
// valid UTF-8 is handled as bytes.

// Every service in declared order.
std::span<const LinkService> allLinkServices();

// The case's own name ("whatsapp", "x"), as JSON and the command line write it.
std::string_view caseName(LinkService service);
// The service whose case name is exactly `name`.
std::optional<LinkService> linkServiceFromCaseName(std::string_view name);

// The raw name used in stored social profiles ("twitter" for x).
std::string_view serviceName(LinkService service);
// The name shown to the user ("X" for x).
std::string_view displayName(LinkService service);
std::string_view iconName(LinkService service);
// The grey hint shown in an empty handle field.
std::string_view handlePlaceholder(LinkService service);

// The host names on which a service's profiles are recognised, lower-case and
// without "www." (Mastodon has none: it runs on any server).
std::span<const std::string_view> recognisedHosts(LinkService service);

// The service a social profile's service name names: matched, ignoring case
// and surrounding white space, against the raw names and the display names.
// None for an unknown name.
std::optional<LinkService> serviceNamed(std::string_view name);

// True when the text is non-empty, made only of "+0123456789 ()-." and has
// more than 6 digits.
bool looksLikePhone(std::string_view text);

// The phone in international "+digits" form, or none when the text does not
// look like a phone. Ten digits are taken as a North American number, a
// leading "00" as the international call prefix.
std::optional<std::string> phoneForLink(std::string_view text);

// A handle as the user typed or pasted it, reduced to the bare handle: a
// pasted profile address on the service's own host gives its handle, one
// leading "@" goes, spaces go. A Mastodon handle keeps its inner "@" and its
// spaces: "@user@server" becomes "user@server", and a pasted
// "https://server/@user" becomes "user@server". Text that is no profile
// address of the service is kept, less the "@" and the spaces.
std::string cleanHandle(std::string_view text, LinkService service);

// The service's web profile address for the link, or none when the handle
// cannot make one: an empty handle, a Signal or WhatsApp handle that is no
// phone, a Mastodon handle that is not exactly "user@server". The handle is
// cleaned first and percent-encoded for the address.
std::optional<std::string> webURL(const LinkedAccount& link);

// The service's own application address for the link, or none (services
// without an application address, or a handle that cannot make one).
// Opening a link tries this first and falls back to webURL.
std::optional<std::string> appURL(const LinkedAccount& link);

struct RecognisedLink {
    LinkService service = LinkService::signal;
    std::string handle;

    bool operator==(const RecognisedLink&) const = default;
};

// The service and handle of a profile address on a known service's host, or
// none. The text needs no scheme; the host is matched ignoring case, port,
// user info and a leading "www." or "m.". Only the address of a profile
// itself is recognised: a post, a repository or a share page under the same
// host is not, so that a web address that is not a profile is never taken
// off the card's web addresses. Mastodon servers are never recognised: any
// host could be one.
std::optional<RecognisedLink> recognise(std::string_view url);

// Links as stored on a card.
//
// A link is written as a social profile whose service name is
// serviceName(link.service), whose user name is the link's handle, and whose
// address is socialProfileURL(link). Reading it back with
// linkFromSocialProfile gives the same service and handle.

// The address stored with a link's social profile: its web address, or empty
// when it has none.
std::string socialProfileURL(const LinkedAccount& link);

// The link a stored social profile stands for, with `entryID` as its id and
// not marked new. A profile whose service name names a known service gives
// that service; its handle is the user name, or, when that is empty, the
// handle read from the profile's address. A profile whose service name is
// unknown is recognised by the address's host instead. None when no handle
// is found.
std::optional<LinkedAccount> linkFromSocialProfile(std::string_view entryID, std::string_view serviceName,
                                                   std::string_view userName, std::string_view url);

// The link an instant-message address stands for: only when its service
// names a known service and its user name is not blank. The handle is the
// user name, trimmed.
std::optional<LinkedAccount> linkFromMessagingAddress(std::string_view entryID, std::string_view serviceName,
                                                      std::string_view userName);

// The link a card's web address stands for, when recognise accepts it.
std::optional<LinkedAccount> linkFromWebAddress(std::string_view entryID, std::string_view url);

} // namespace kinbook
