#include "cli/PhotoCommands.h"

#include "KinbookKit/records/PastJob.h"
#include "KinbookKit/sidecar/ContactPhotos.h"
#include "cli/Failure.h"
#include "cli/PeopleSession.h"
#include "cli/Terminal.h"

#include <fmt/core.h>
#include <nlohmann/json.hpp>

#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

namespace kinbook::cli {
namespace {

using nlohmann::json;
using Bytes = std::vector<std::uint8_t>;

Bytes readPicture(const std::string& file) {
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        fail(fmt::format("can't read {}", file));
    }
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void printJson(const json& document) {
    fmt::print("{}\n", document.dump(2, ' ', false, json::error_handler_t::replace));
}

ContactPhotos& photoStore(PeopleSession& session) {
    ContactPhotos* photos = session.kit().photos();
    if (photos == nullptr) {
        fail(fmt::format(
            "there is no sidecar folder to keep photos and history in: set \"sidecar\" in {} to a "
            "folder whose parent exists",
            session.configuration().configFile.string()));
    }
    return *photos;
}

std::vector<std::string> cardIDsOf(const Person& person) {
    if (!person.memberIDs.empty()) {
        return {person.memberIDs.begin(), person.memberIDs.end()};
    }
    return {person.id};
}

// Whose sidecar folder. A person who has no KinID yet gets one in every card
// before anything is written for them, so that the folder finds them again.
PersonKey keyFor(PeopleSession& session, const Person& person, bool forWriting) {
    PersonKey key{person.kinID.value_or(""), std::string(person.displayName())};
    if (!key.kinID.empty() || !forWriting) {
        return key;
    }
    auto& book = *session.kit().addressBook();
    for (const auto& cardID : cardIDsOf(person)) {
        auto anchor = book.changeAnchor(cardID, [&](KinID::Anchor& written) {
            if (!key.kinID.empty()) {
                written.id = key.kinID;
            }
        });
        if (!anchor) {
            fail(anchor.error().description());
        }
        key.kinID = anchor->id;
    }
    return key;
}

json photoJson(const PhotoItem& item) {
    return {{"url", item.url.string()}, {"isLocal", item.isLocal}};
}

json posterJson(const Poster& poster) {
    return {{"url", poster.url.string()},
            {"isLocal", poster.isLocal},
            {"focus", {{"x", poster.focus.x}, {"y", poster.focus.y}}}};
}

} // namespace

void addPhotoCommands(CLI::App& app, const ToolOptions& options) {
    auto personArgument = std::make_shared<std::string>();
    auto files = std::make_shared<std::vector<std::string>>();

    auto* photos = app.add_subcommand("photos", "A person's full-size photos in the sidecar folder");
    photos->add_option("PERSON", *personArgument, "A card id, KinID or a search finding one person")
        ->required();
    photos->callback([&options, personArgument] {
        PeopleSession session(options);
        session.load();
        const Person person = session.resolve(*personArgument);
        const auto items = photoStore(session).photos(keyFor(session, person, false));
        if (options.json) {
            json list = json::array();
            for (const auto& item : items) {
                list.push_back(photoJson(item));
            }
            printJson(list);
        } else {
            for (const auto& item : items) {
                fmt::print("{}{}\n", terminalText(item.url.string()),
                           item.isLocal ? "" : "  (not downloaded yet)");
            }
        }
        session.finish();
    });

    auto* photo = app.add_subcommand("photo", "Add a person's photos, or set their contact photo");
    photo->require_subcommand(1);
    auto* add = photo->add_subcommand("add", "Keep pictures as the person's photos (one copy of each)");
    add->add_option("PERSON", *personArgument, "A card id, KinID or a search finding one person")->required();
    add->add_option("FILE", *files, "Pictures: JPEG, PNG, WebP, HEIC where libvips reads it")->required();
    add->callback([&options, personArgument, files] {
        PeopleSession session(options);
        session.load();
        const Person person = session.resolve(*personArgument);
        std::vector<Bytes> pictures;
        for (const auto& file : *files) {
            pictures.push_back(readPicture(file));
        }
        auto added = photoStore(session).addPhotos(keyFor(session, person, true), pictures);
        if (!added) {
            fail(fmt::format("Couldn't Add Photo: {}", added.error()));
        }
        for (const auto& item : *added) {
            fmt::print("{}\n", terminalText(item.url.string()));
        }
        if (added->size() < files->size()) {
            warn(fmt::format("{} of the pictures were there already", files->size() - added->size()));
        }
        session.finish();
    });
    auto* set = photo->add_subcommand("set", "Make a picture the contact photo, cut around the face");
    set->add_option("PERSON", *personArgument, "A card id, KinID or a search finding one person")->required();
    set->add_option("FILE", *files, "A picture")->required()->expected(1);
    set->callback([&options, personArgument, files] {
        PeopleSession session(options);
        session.load();
        const Person person = session.resolve(*personArgument);
        const auto cardIDs = cardIDsOf(person);
        auto saved = session.kit().setContactPhoto(cardIDs, readPicture(files->front()));
        if (!saved) {
            fail(saved.error());
        }
        fmt::print("contact photo set for {}\n", terminalText(person.displayName()));
        session.finish();
    });

    auto* poster = app.add_subcommand("poster", "Show, set or remove the picture behind a person's page");
    auto remove = std::make_shared<bool>(false);
    poster->add_option("PERSON", *personArgument, "A card id, KinID or a search finding one person")
        ->required();
    auto* posterFile = poster->add_option("FILE", *files, "A picture to make the poster")->expected(0, 1);
    poster->add_flag("--remove", *remove, "Remove the poster (the photos stay)")->excludes(posterFile);
    poster->callback([&options, personArgument, files, remove] {
        PeopleSession session(options);
        session.load();
        const Person person = session.resolve(*personArgument);
        ContactPhotos& store = photoStore(session);
        if (*remove) {
            auto removed = store.removePoster(keyFor(session, person, false));
            if (!removed) {
                fail(removed.error());
            }
        } else if (!files->empty()) {
            const std::string file = files->front();
            auto made = store.setPoster(keyFor(session, person, true), readPicture(file),
                                        "file:" + std::filesystem::path(file).filename().string());
            if (!made) {
                fail(made.error());
            }
            printJson(posterJson(*made));
        } else if (const auto shown = store.poster(keyFor(session, person, false))) {
            printJson(posterJson(*shown));
        } else {
            printJson(nullptr);
        }
        session.finish();
    });

    auto* jobs = app.add_subcommand("jobs", "A person's past jobs, kept in the sidecar folder");
    auto company = std::make_shared<std::optional<std::string>>();
    auto title = std::make_shared<std::string>();
    auto years = std::make_shared<std::string>();
    auto clear = std::make_shared<bool>(false);
    jobs->add_option("PERSON", *personArgument, "A card id, KinID or a search finding one person")
        ->required();
    auto* addJob = jobs->add_option_function<std::string>(
        "--add", [company](const std::string& value) { *company = value; }, "Keep a previous job at COMPANY");
    addJob->type_name("COMPANY");
    jobs->add_option("--title", *title, "The title of the job --add keeps")->needs(addJob);
    jobs->add_option("--years", *years, "When, as free text (1999-2004)")->needs(addJob);
    jobs->add_flag("--clear", *clear, "Forget every past job")->excludes(addJob);
    jobs->callback([&options, personArgument, company, title, years, clear] {
        PeopleSession session(options);
        session.load();
        const Person person = session.resolve(*personArgument);
        ContactPhotos& store = photoStore(session);
        const bool changing = *clear || company->has_value();
        const PersonKey key = keyFor(session, person, changing);
        std::vector<PastJob> list = *clear ? std::vector<PastJob>{} : store.pastJobs(key);
        if (company->has_value()) {
            auto job = PastJob::make(**company, *title, *years);
            if (job.isEmpty()) {
                fail("a past job needs a company or a title");
            }
            list.push_back(std::move(job));
        }
        if (changing) {
            auto written = store.setPastJobs(key, list);
            if (!written) {
                fail(written.error());
            }
        }
        if (options.json) {
            json out = json::array();
            for (const auto& job : list) {
                out.push_back(
                    {{"id", job.id}, {"company", job.company}, {"title", job.title}, {"years", job.years}});
            }
            printJson(out);
        } else {
            for (const auto& job : list) {
                fmt::print("{}\n", terminalText(job.summary()));
            }
        }
        session.finish();
    });
}

} // namespace kinbook::cli
