#include "sim/variant_options.h"

#include <algorithm>

#include <CLI/CLI.hpp>

#include "core/text.h"
#include "sim/checksums.h"
#include "sim/protocol.h"

namespace lm::sim {
namespace {

constexpr std::uint64_t kNoNumber = ~std::uint64_t{0};

bool holds(const std::vector<std::string>& words, const char* word) {
    return std::find(words.begin(), words.end(), word) != words.end();
}

}  // namespace

void VariantOptions::add(CLI::App& app, Options& options) {
    addStaticLists(app, options);
    addLock(app, options);
    addPages(app, options);
    addBlocks(app, options.blocks);
    addOddities(app);
}

void VariantOptions::addLock(CLI::App& app, Options& options) {
    constexpr const char* kGroup = "Seed & key";
    const auto words = [&](const char* name, std::vector<std::string>& to, const char* help,
                           const std::vector<std::string>& known) {
        return app.add_option(name, to, help)
            ->delimiter(',')
            ->allow_extra_args(false)
            ->check(CLI::IsMember(known))
            ->group(kGroup);
    };
    CLI::Option* lock = words("--lock", lock_, "Locked after every CONNECT: cal, daq, stim, pgm; by commas",
                              {"cal", "daq", "stim", "pgm"});
    app.add_option("--seed-bytes", options.lock.seedBytes, "Bytes of a seed, random for each request (4)")
        ->check(CLI::Range(1, 255))
        ->needs(lock)
        ->group(kGroup);
    app.add_option("--key-bytes", options.lock.keyBytes, "Bytes of a key (as the seed)")
        ->check(CLI::Range(1, 255))
        ->needs(lock)
        ->group(kGroup);
    words(
        "--lock-quirks", lockQuirks_,
        "once: a grant serves one command; reads: UPLOADs belong to cal; queries: those about DAQ belong to "
        "daq; silent: GET_STATUS tells that nothing is locked",
        {"once", "reads", "queries", "silent"})
        ->needs(lock);
}

void VariantOptions::addStaticLists(CLI::App& app, Options& options) {
    constexpr const char* kGroup = "Static DAQ lists";
    app.add_flag("--static-daq", staticDaq_, "As --static-lists 10x7,10x7,10x7,4x7")->group(kGroup);
    app.add_option(
           "--static-lists", staticLists_.lists,
           "The DAQ lists that there are, each ODTSxENTRIES[@EVENT], by commas; 4x7@1 is on event 1 for "
           "ever")
        ->delimiter(',')
        ->allow_extra_args(false)
        ->group(kGroup);
    app.add_option("--predefined", staticLists_.predefined,
                   "A list before those that holds SIGNAL,SIGNAL...[@EVENT] for ever; repeatable")
        ->allow_extra_args(false)
        ->group(kGroup);
    app.add_option("--list-first-pid", staticLists_.firstPids,
                   "First PID of each list, by commas, with --identification 0 (one after the other)")
        ->delimiter(',')
        ->allow_extra_args(false)
        ->group(kGroup);
    app.add_flag("!--no-prescaler", options.prescaler, "Refuse prescalers other than 1")->group(kGroup);
}

void VariantOptions::addBlocks(CLI::App& app, BlockOptions& blocks) {
    constexpr const char* kGroup = "Block transfer";
    app.add_flag("--slave-blocks", blocks.answers, "Several packets answer an UPLOAD of up to 255 elements")
        ->group(kGroup);
    CLI::Option* const most = app.add_option("--master-blocks", blocks.maxBs,
                                             "Packets of a DOWNLOAD with its DOWNLOAD_NEXTs at most")
                                  ->check(CLI::Range(2, 255))
                                  ->group(kGroup);
    app.add_option("--min-st", blocks.pause, "100 us times that between them, or they are not heard")
        ->needs(most)
        ->check(CLI::Range(0, 255))
        ->group(kGroup);
}

void VariantOptions::addOddities(CLI::App& app) {
    app.add_option("--offer", offer_, "Knows these too, by commas: MODIFY_BITS, WRITE_DAQ_MULTIPLE")
        ->delimiter(',')
        ->allow_extra_args(false)
        ->group("Rarities and oddities");
    app.add_option(
           "--tells", tells_,
           "Tells what is not so, KEY=VALUE by commas: granularity=1|2|4, order=little|big, max-cto=N, "
           "max-dto=N, timestamp=0|1|2|4, tick-unit=0..9, running=0|1")
        ->delimiter(',')
        ->allow_extra_args(false)
        ->group("Rarities and oddities");
}

void VariantOptions::addPages(CLI::App& app, Options& options) {
    constexpr const char* kGroup = "Identity and pages";
    PageOptions& paging = options.paging;
    app.add_option("--epk", paging.epk, "The software's name, in memory at 0x90000 and in the A2L file")
        ->check(CLI::Validator(
            [](std::string& text) { return text.empty() || text.size() > 255 ? "1 to 255 bytes" : ""; },
            "TEXT"))
        ->group(kGroup);
    CLI::Option* pages =
        app.add_option("--pages", paging.pages,
                       "The parameters lie in two segments of so many pages; of several the first is flash")
            ->check(CLI::Range(1, 8))
            ->group(kGroup);
    app.add_option("--checksum", checksum_,
                   "Type of BUILD_CHECKSUM: add-11, add-12, add-14, add-22, add-24, add-44, crc-16, "
                   "crc-16-citt, crc-32, user")
        ->needs(pages)
        ->capture_default_str()
        ->group(kGroup);
    app.add_option("--checksum-block", paging.checksumBlock, "Most bytes that one BUILD_CHECKSUM takes")
        ->check(CLI::Range(8, 1 << 24))
        ->needs(pages)
        ->group(kGroup);
    app.add_flag("!--no-freeze", paging.freeze, "Pages cannot be stored")->needs(pages)->group(kGroup);
    app.add_option("--page-faults", pageFaults_,
                   "What goes wrong, by commas: wrong-epk and unreadable-epk (another one, none in memory), "
                   "apart (XCP is on page 0 at first, the ECU on page 1), stuck (SET_CAL_PAGE does nothing), "
                   "switched (the first DOWNLOAD finds both sides on page 0)")
        ->delimiter(',')
        ->allow_extra_args(false)
        ->check(CLI::IsMember({"wrong-epk", "unreadable-epk", "apart", "stuck", "switched"}))
        ->group(kGroup);
}

Result<void> VariantOptions::completePages(PageOptions& paging, std::uint8_t granularity) const {
    const std::optional<std::uint8_t> type = checksumNumber(checksum_);
    if (!type)
        return Error{ErrorCode::invalidArgument, "--checksum '" + checksum_ + "': --help shows the types"};
    paging.checksumType = *type;
    if (paging.checksumBlock % std::max(granularity, checksumStep(*type)) != 0)
        return Error{ErrorCode::invalidArgument, "--checksum-block: a multiple of what is added at once"};
    paging.wrongEpk = holds(pageFaults_, "wrong-epk");
    paging.unreadableEpk = holds(pageFaults_, "unreadable-epk");
    paging.apart = holds(pageFaults_, "apart");
    paging.stuck = holds(pageFaults_, "stuck");
    paging.switched = holds(pageFaults_, "switched");
    return {};
}

Result<void> VariantOptions::complete(Options& options) {
    completeLock(options.lock);
    const Result<void> paged = completePages(options.paging, options.granularity);
    if (!paged.ok()) return paged.error();
    const Result<void> offered = completeOffer(options.offer);
    if (!offered.ok()) return offered.error();
    const Result<void> told = completeTales(options.tells);
    if (!told.ok()) return told.error();
    return completeStaticLists(options);
}

Result<void> VariantOptions::completeOffer(std::set<std::uint8_t>& offer) const {
    for (const std::string& typed : offer_) {
        std::string name = typed;  // modify-bits will do
        for (char& c : name)
            c = c == '-' ? '_' : c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
        const std::optional<std::uint8_t> code = commandCode(name);
        if (!code || findCommand(*code)->presence != Presence::onRequest) {
            return Error{ErrorCode::invalidArgument,
                         "--offer '" + typed + "': MODIFY_BITS or WRITE_DAQ_MULTIPLE expected"};
        }
        offer.insert(*code);
    }
    return {};
}

Result<void> VariantOptions::completeTales(Tales& tales) const {
    for (const std::string& tale : tells_) {
        const std::size_t equals = std::min(tale.find('='), tale.size());
        const std::string key = tale.substr(0, equals);
        const std::string value = tale.substr(std::min(equals + 1, tale.size()));
        const Result<std::uint64_t> parsed = parseUnsigned(value, NumberBase::automatic, 0xFFFF);
        const std::uint64_t number = parsed.ok() ? parsed.value() : kNoNumber;
        const auto byte = static_cast<std::uint8_t>(number);
        if (key == "order" && (value == "big" || value == "little")) {
            tales.order = value == "big" ? ByteOrder::bigEndian : ByteOrder::littleEndian;
        } else if (key == "granularity" && (number == 1 || number == 2 || number == 4)) {
            tales.granularity = byte;
        } else if (key == "max-cto" && number <= 0xFF) {
            tales.maxCto = byte;
        } else if (key == "max-dto" && number != kNoNumber) {
            tales.maxDto = static_cast<std::uint16_t>(number);
        } else if (key == "timestamp" && (number <= 2 || number == 4)) {
            tales.timestampSize = byte;
        } else if (key == "tick-unit" && number <= 9) {
            tales.tickExponent = byte;
        } else if (key == "running" && number <= 1) {
            tales.running = number == 1;
        } else {
            return Error{ErrorCode::invalidArgument, "--tells '" + tale + "': --help shows what it can be"};
        }
    }
    return {};
}

Result<void> VariantOptions::completeStaticLists(Options& options) {
    StaticListTexts& texts = staticLists_;
    const bool asked = staticDaq_ || !texts.lists.empty() || !texts.predefined.empty();
    if (!asked && !texts.firstPids.empty()) {
        return Error{ErrorCode::invalidArgument, "--list-first-pid: needs --static-daq or --static-lists"};
    }
    if (!asked) return {};
    if (options.minDaq != 0) {
        return Error{ErrorCode::invalidArgument,
                     "--min-daq: with static lists --predefined makes that number"};
    }
    if (texts.lists.empty() && staticDaq_) texts.lists = kSomeLists;
    Result<std::vector<StaticList>> lists = makeStaticLists(texts, options, Catalog(options));
    if (!lists.ok()) return lists.error();
    options.staticLists = std::move(lists).value();
    return {};
}

void VariantOptions::completeLock(LockOptions& lock) const {
    lock.resources = static_cast<std::uint8_t>(
        (holds(lock_, "cal") ? kCalibration : 0) | (holds(lock_, "daq") ? kDaq : 0) |
        (holds(lock_, "stim") ? kStim : 0) | (holds(lock_, "pgm") ? kPgm : 0));
    lock.grantsOnce = holds(lockQuirks_, "once");
    lock.locksReads = holds(lockQuirks_, "reads");
    lock.locksQueries = holds(lockQuirks_, "queries");
    lock.statusIsSilent = holds(lockQuirks_, "silent");
}

}  // namespace lm::sim
