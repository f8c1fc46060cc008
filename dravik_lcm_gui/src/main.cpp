// dravik_lcm_gui: the LCD panel daemon's process entry and main loop.
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <iterator>
#include <string>
#include <vector>

#include "GuiConfig.h"
#include "GuiPaths.h"
#include "LcmGui.h"
#include "LcmGuiHandler.h"
#include "Watchdog.h"
#include "dravik_ipc/ipc.h"
#include "dravik_logger/logger.h"
#include "dravik_utils/utils.h"
#include "dravik_variant/cmdline.h"
#include "dravik_variant_utils/camerainfo.h"

using dravik::lcmgui::GuiConfig;
using dravik::lcmgui::LcmGui;
using dravik::lcmgui::LcmGuiHandler;
using dravik::variant::CameraInfo;
using dravik::variant::Variant;
using dravik::variant::VariantType;

// Every record of the process entry carries the function name "main", also
// from the small steps below.
#define MAIN_LOG(level, ...) \
    logInternal("dravik_lcm_gui", __FILE__, "main", __LINE__, (level), 0, 0, __VA_ARGS__)

// Set by the SIGTERM handler, read afresh by every turn of the main loop.
std::atomic<bool> gStop{false};
static_assert(std::atomic<bool>::is_always_lock_free, "gStop must be usable from a signal handler");

void quitSignal(int /*signal*/, siginfo_t* /*info*/, void* /*context*/) {
    puts("SIGTERM received");
    gStop = true;
}

namespace {

const char kProcessName[] = "dravik_lcm_gui";

void declareParameters(Variant& definitions) {
    using dravik::variant::AddParameter;
    AddParameter(definitions, 'h', "help", "Outputs this help", Variant(true));
    AddParameter(definitions, 'd', "device", "Frame buffer device",
                 Variant(dravik::lcmgui::kDefaultDevice));
    AddParameter(definitions, 'c', "configFile", "Screens config file", Variant(""));
    AddParameter(definitions, 's', "startupScreen", "Start-up screen", Variant(""));
    AddParameter(definitions, 'b', "brightness", "Brightness", Variant(-1));
}

// The string under "parameters/<name>", or "" when absent or not a string.
std::string stringParameter(const Variant& result, const char* path) {
    const Variant* value = result.GetKeyChain(dravik::variant::kString, path, false);
    return value ? value->AsString() : std::string();
}

// Candidates in search order: the one given file, or each directory with the
// system-specific name first, then the generic one.
std::vector<std::string> configCandidates(const Variant& result,
                                          const std::vector<std::string>& directories,
                                          const std::vector<std::string>& fileNames) {
    if (const Variant* given =
            result.GetKeyChain(dravik::variant::kString, "parameters/configFile", false)) {
        return {given->AsString()};
    }
    std::vector<std::string> candidates;
    for (const auto& directory : directories) {
        for (const auto& fileName : fileNames) {
            candidates.push_back(directory + fileName);
        }
    }
    return candidates;
}

// Loads the first candidate that is a valid screens file; "" when none is.
std::string loadConfig(GuiConfig& config, const std::vector<std::string>& candidates) {
    MAIN_LOG(dravik::logger::kDebug, "Will look for config file in the following locations:");
    for (const auto& candidate : candidates) {
        MAIN_LOG(dravik::logger::kDebug, "\t\t%s", candidate.c_str());
    }
    for (const auto& candidate : candidates) {
        if (config.fromJSONFile(candidate)) {
            return candidate;
        }
    }
    return std::string();
}

// The handler's puts must neither allocate nor wait. glibc gives a stream its
// buffer on first use, with malloc; a SIGTERM that lands while the main loop is
// inside malloc (drawing a frame, reading a request) would re-enter the
// allocator and corrupt the heap. Nothing else in the daemon writes to standard
// output, so with this static line buffer, set before the handler exists, the
// handler's puts is a copy and one write.
char gStdoutBuffer[BUFSIZ];

bool installQuitSignal() {
    if (setvbuf(stdout, gStdoutBuffer, _IOLBF, sizeof gStdoutBuffer) != 0) {
        return false;
    }
    struct sigaction action {};
    action.sa_sigaction = quitSignal;
    action.sa_flags = SA_SIGINFO;  // no SA_RESTART: the loop's wait returns at once
    return sigemptyset(&action.sa_mask) == 0 && sigaction(SIGTERM, &action, nullptr) == 0;
}

#ifdef DRAVIK_LOOP_STALL_HOOK
// Built into the tests' copy of the daemon only, never installed: SIGUSR1
// stalls the main loop for good, as a hang would, so that a test can see the
// watchdog's pings stop and the daemon restarted.
volatile sig_atomic_t gStall = 0;

void stallSignal(int /*signal*/) {
    gStall = 1;
}

void stallWhenAsked() {
    static const bool installed = [] {
        struct sigaction action {};
        action.sa_handler = stallSignal;
        return sigemptyset(&action.sa_mask) == 0 && sigaction(SIGUSR1, &action, nullptr) == 0;
    }();
    while (installed && gStall != 0) {
        pause();
    }
}
#else
void stallWhenAsked() {}
#endif

// Frees the IPC singleton when main's scope unwinds past it.
struct IpcInstance {
    Ipc* ipc = Ipc::GetInstance();
    ~IpcInstance() { Ipc::FreeInstance(); }
};

// Parses the command line into `result`; true when it asks for the help, which
// is then printed.
bool readParameters(int argc, char** argv, Variant& definitions, Variant& result) {
    declareParameters(definitions);
    (void)dravik::variant::ParseCommandLine(argc, const_cast<const char**>(argv), definitions,
                                            result);  // whatever parsed is used
    if (result.GetKeyChain(dravik::variant::kAny, "parameters/help", false) == nullptr) {
        return false;
    }
    dravik::variant::PrintHelp(argv[0], definitions);
    return true;
}

// The screens files to try, in order: the one given, or each directory with
// the file named after this device's system id first. Reads the id, so it
// runs only once the device's properties are known to be readable.
std::vector<std::string> screensFileCandidates(const Variant& result,
                                               const CameraInfo& cameraInfo) {
    const std::vector<std::string> directories(std::begin(dravik::lcmgui::kGuiDirectories),
                                               std::end(dravik::lcmgui::kGuiDirectories));
    const std::vector<std::string> fileNames = {
        dravik::utils::format("dravik_lcm_gui_sysid_%04lx.json", cameraInfo.sysid()),
        "dravik_lcm_gui.json"};
    return configCandidates(result, directories, fileNames);
}

// The brightness parameter; -1 (leave the backlight alone) when absent.
signed char brightnessParameter(const Variant& result) {
    const Variant* value =
        result.GetKeyChain(dravik::variant::kNumericPattern, "parameters/brightness", false);
    return value ? static_cast<signed char>(*value) : -1;
}

void registerHandlers(Ipc& ipc, LcmGuiHandler& handler, CatchAllHandlerRejector& rejector) {
    for (const std::string& function : LcmGuiHandler::functionNames()) {
        (void)ipc.AddHandler(function, &handler);
    }
    (void)ipc.AddHandler("", &rejector);
}

// The main loop: the bus, then the panel, until SIGTERM or a failure; each
// turn that gets this far keeps the watchdog. Returns the exit status.
int serve(Ipc& ipc, LcmGui& gui) {
    dravik::lcmgui::Watchdog watchdog;
    for (;;) {
        if (gStop) {
            MAIN_LOG(dravik::logger::kInfo, "Gracefully shut down");
            return 0;
        }
        if (!ipc.Service(30)) {
            MAIN_LOG(dravik::logger::kError, "Failed to service IPC");
            return -1;
        }
        if (!gui.service()) {
            MAIN_LOG(dravik::logger::kError, "Failed to service LcmGui");
            return -1;
        }
        watchdog.kick();
        stallWhenAsked();
    }
}

}  // namespace

int main(int argc, char** argv) {
    Variant definitions;
    Variant result;
    if (readParameters(argc, argv, definitions, result)) {
        return 0;  // the help was asked for and printed
    }
    const std::string device = stringParameter(result, "parameters/device");

    CameraInfo cameraInfo;
    if (!cameraInfo.Init()) {
        // Deliberately 0: a device without readable properties is not restarted.
        MAIN_LOG(dravik::logger::kError, "Failed to read camera properties");
        return 0;
    }

    IpcInstance endpoint;
    if (!endpoint.ipc->Init(kProcessName, false, nullptr)) {
        MAIN_LOG(dravik::logger::kError, "Failed to initialize IPC");
        return -1;
    }

    GuiConfig config;
    const std::string configFile = loadConfig(config, screensFileCandidates(result, cameraInfo));
    if (configFile.empty()) {
        MAIN_LOG(dravik::logger::kError, "No valid config file found");
        return -1;
    }
    MAIN_LOG(dravik::logger::kInfo, "Using the following config file: `%s`", configFile.c_str());

    LcmGui gui(config);
    if (!gui.init(device, stringParameter(result, "parameters/startupScreen"),
                  brightnessParameter(result))) {
        MAIN_LOG(dravik::logger::kError, "Failed to initialize lcmGui");
        return -1;
    }

    LcmGuiHandler handler(gui);
    CatchAllHandlerRejector rejector;
    registerHandlers(*endpoint.ipc, handler, rejector);

    gStop = false;
    if (!installQuitSignal()) {
        MAIN_LOG(dravik::logger::kError, "Unable to install the quit signal");
        forceCrash();
        return -1;
    }
    return serve(*endpoint.ipc, gui);
}
