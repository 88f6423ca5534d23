#include "scheduling/launch_agent.hpp"

#include <plist/plist.h>

#include <memory>

#include "platform/child_process.hpp"
#include "platform/durable_file.hpp"

namespace corvane {

namespace {

struct PlistFree {
  void operator()(void* node) const { plist_free(static_cast<plist_t>(node)); }
};
using PlistOwner = std::unique_ptr<void, PlistFree>;

}  // namespace

namespace LaunchAgentPlist {

std::string contents(const std::filesystem::path& executablePath, int minute) {
  PlistOwner root(plist_new_dict());
  plist_t dict = root.get();
  plist_dict_set_item(dict, "Label", plist_new_string(label));
  plist_t arguments = plist_new_array();
  plist_array_append_item(arguments, plist_new_string(executablePath.c_str()));
  plist_array_append_item(arguments, plist_new_string("--backup-tick"));
  plist_dict_set_item(dict, "ProgramArguments", arguments);
  plist_t interval = plist_new_dict();
  plist_dict_set_item(interval, "Minute", plist_new_uint(static_cast<uint64_t>(minute)));
  plist_dict_set_item(dict, "StartCalendarInterval", interval);
  plist_dict_set_item(dict, "ProcessType", plist_new_string("Background"));
  plist_dict_set_item(dict, "LowPriorityIO", plist_new_bool(1));
  plist_dict_set_item(dict, "LimitLoadToSessionType", plist_new_string("Aqua"));
  plist_t bundles = plist_new_array();
  plist_array_append_item(bundles, plist_new_string(bundleIdentifier));
  plist_dict_set_item(dict, "AssociatedBundleIdentifiers", bundles);
  plist_dict_set_item(dict, "StandardOutPath", plist_new_string("/dev/null"));
  plist_dict_set_item(dict, "StandardErrorPath", plist_new_string("/dev/null"));

  char* xml = nullptr;
  uint32_t length = 0;
  plist_to_xml(dict, &xml, &length);
  std::string text(xml ? xml : "", length);
  plist_to_xml_free(xml);
  return text;
}

std::optional<Parsed> parse(std::string_view text) {
  plist_t raw = nullptr;
  plist_from_xml(text.data(), static_cast<uint32_t>(text.size()), &raw);
  PlistOwner root(raw);
  if (!raw || plist_get_node_type(raw) != PLIST_DICT) return std::nullopt;
  plist_t arguments = plist_dict_get_item(raw, "ProgramArguments");
  plist_t interval = plist_dict_get_item(raw, "StartCalendarInterval");
  if (!arguments || plist_get_node_type(arguments) != PLIST_ARRAY || !interval ||
      plist_get_node_type(interval) != PLIST_DICT)
    return std::nullopt;
  plist_t program = plist_array_get_item(arguments, 0);
  plist_t minute = plist_dict_get_item(interval, "Minute");
  if (!program || plist_get_node_type(program) != PLIST_STRING || !minute ||
      plist_get_node_type(minute) != PLIST_UINT)
    return std::nullopt;
  Parsed parsed;
  uint64_t length = 0;
  const char* path = plist_get_string_ptr(program, &length);
  parsed.executablePath.assign(path, length);
  uint64_t value = 0;
  plist_get_uint_val(minute, &value);
  parsed.minute = static_cast<int>(value);
  return parsed;
}

}  // namespace LaunchAgentPlist

namespace SystemLaunchctl {

ServiceCommandResult run(const std::vector<std::string>& arguments) {
  ProcessRequest request;
  request.executable = "/bin/launchctl";
  request.arguments = arguments;
  request.environment = ChildProcess::currentEnvironment();
  request.timeout = std::chrono::seconds(30);
  try {
    const auto result = ChildProcess::run(request);
    return {result.exitStatus, result.standardOutput + result.standardError};
  } catch (const std::exception& error) {
    return {127, error.what()};
  }
}

}  // namespace SystemLaunchctl

LaunchAgentManager::LaunchAgentManager(std::filesystem::path folder, uid_t userId,
                                       ServiceCommandRunner launchctl)
    : folder_(std::move(folder)), userId_(userId), launchctl_(std::move(launchctl)) {}

std::string LaunchAgentManager::domain() const { return "gui/" + std::to_string(userId_); }

std::string LaunchAgentManager::serviceTarget() const {
  return domain() + "/" + LaunchAgentPlist::label;
}

void LaunchAgentManager::checkExecutableLocation(const std::filesystem::path& executablePath) {
  const std::string path = executablePath.string();
  if (path.find("/AppTranslocation/") != std::string::npos)
    throw SchedulerError(
        "macOS is running Corvane from a temporary copy, because it has not been moved to your "
        "Applications folder yet. Drag it into Applications, open it from there, and turn "
        "scheduled backups on again.");
  if (path.rfind("/Volumes/", 0) == 0)
    throw SchedulerError(
        "Corvane is running from the disk image or from another disk. Drag it into your "
        "Applications folder, open it from there, and turn scheduled backups on again.");
  if (path.empty() || !executablePath.is_absolute())
    throw SchedulerError(
        "Corvane could not tell where it is installed, so it cannot set up scheduled backups. "
        "Open it from your Applications folder and try again.");
}

SchedulerState LaunchAgentManager::current(bool askLaunchd) {
  SchedulerState state;
  std::optional<std::string> text;
  try {
    text = Durable::readWhole(fileURL());
  } catch (const std::exception&) {
    text = std::string();  // there, but unreadable: counts as installed, contents unknown
  }
  state.installed = text.has_value();
  if (text) {
    if (const auto parsed = LaunchAgentPlist::parse(*text)) {
      state.executablePath = parsed->executablePath;
      state.minute = parsed->minute;
    }
  }
  if (askLaunchd) state.loaded = launchctl_({"print", serviceTarget()}).status == 0;
  return state;
}

BackupScheduler::Outcome LaunchAgentManager::reconcile(bool enabled,
                                                       const std::filesystem::path& executablePath,
                                                       int minute) {
  const auto state = current(true);
  if (!enabled) {
    if (!state.installed && !state.loaded.value_or(false)) return Outcome::unchanged;
    apply({Action::bootout, Action::removePlist}, {});
    return Outcome::removed;
  }
  checkExecutableLocation(executablePath);
  if (state.installed && state.executablePath == executablePath.string() &&
      state.minute == minute && state.loaded.value_or(false))
    return Outcome::unchanged;
  apply({Action::writePlist, Action::bootout, Action::bootstrap},
        LaunchAgentPlist::contents(executablePath, minute));
  return Outcome::installed;
}

void LaunchAgentManager::apply(const std::vector<Action>& actions, const std::string& contents) {
  for (const auto action : actions) {
    switch (action) {
      case Action::bootout:
        // Refused when nothing is loaded, which is fine.
        launchctl_({"bootout", serviceTarget()});
        break;
      case Action::removePlist: {
        std::error_code error;
        std::filesystem::remove(fileURL(), error);
        if (error) throw SchedulerError("Corvane could not remove its schedule file.");
        break;
      }
      case Action::writePlist:
        try {
          std::filesystem::create_directories(folder_);
          // launchd refuses agents that others may write.
          Durable::replace(fileURL(), contents, 0644);
        } catch (const std::exception&) {
          throw SchedulerError(
              "Corvane could not save its schedule file. Scheduled backups will not run.");
        }
        break;
      case Action::bootstrap:
        // An agent disabled behind the program's back ("launchctl disable")
        // would refuse the bootstrap: turning scheduled backups on means it.
        launchctl_({"enable", serviceTarget()});
        if (launchctl_({"bootstrap", domain(), fileURL().string()}).status != 0)
          throw SchedulerError(
              "macOS did not accept the backup schedule. Check that Corvane is allowed under "
              "Login Items in System Settings.");
        break;
    }
  }
}

}  // namespace corvane
