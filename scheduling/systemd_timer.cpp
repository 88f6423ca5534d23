#include "scheduling/systemd_timer.hpp"

#include <unistd.h>

#include <fmt/format.h>

#include "platform/app_support.hpp"
#include "platform/child_process.hpp"
#include "platform/durable_file.hpp"
#include "scheduling/launch_agent.hpp"

namespace corvane {

namespace SystemdUnits {

std::string quoted(std::string_view word) {
  std::string out = "\"";
  for (const char c : word) {
    if (c == '\\' || c == '"') out += '\\';
    if (c == '%' || c == '$') out += c;
    out += c;
  }
  return out + "\"";
}

std::string service(const std::filesystem::path& executablePath,
                    const std::optional<std::string>& home) {
  std::string environment;
  if (home) {
    // Environment= takes C escapes and specifiers, but no "$" expansion.
    environment = "Environment=\"CORVANE_HOME=";
    for (const char c : *home) {
      if (c == '\\' || c == '"') environment += '\\';
      if (c == '%') environment += '%';
      environment += c;
    }
    environment += "\"\n";
  }
  return "[Unit]\n"
         "Description=Corvane scheduled backups\n"
         "\n"
         "[Service]\n"
         "Type=oneshot\n" +
         environment + "ExecStart=" + SystemdUnits::quoted(executablePath.string()) +
         " --backup-tick\n"
         "Nice=10\n"
         "IOSchedulingClass=idle\n";
}

std::string timer(int minute) {
  return fmt::format(
      "[Unit]\n"
      "Description=Corvane scheduled backups, once an hour\n"
      "\n"
      "[Timer]\n"
      "OnCalendar=*-*-* *:{:02}:00\n"
      "Persistent=true\n"
      "\n"
      "[Install]\n"
      "WantedBy=timers.target\n",
      minute);
}

}  // namespace SystemdUnits

namespace {

// The first word of ExecStart= as written by SystemdUnits::service.
std::optional<std::string> executableFromService(std::string_view text) {
  const auto start = text.find("ExecStart=\"");
  if (start == std::string_view::npos) return std::nullopt;
  std::string out;
  for (std::size_t i = start + 11; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '\\' && i + 1 < text.size()) {
      out += text[++i];
    } else if ((c == '%' || c == '$') && i + 1 < text.size() && text[i + 1] == c) {
      out += c;
      ++i;
    } else if (c == '"') {
      return out;
    } else {
      out += c;
    }
  }
  return std::nullopt;
}

std::optional<int> minuteFromTimer(std::string_view text) {
  const auto start = text.find("OnCalendar=*-*-* *:");
  if (start == std::string_view::npos || start + 21 > text.size()) return std::nullopt;
  const auto digits = text.substr(start + 19, 2);
  if (digits[0] < '0' || digits[0] > '9' || digits[1] < '0' || digits[1] > '9')
    return std::nullopt;
  return (digits[0] - '0') * 10 + (digits[1] - '0');
}

}  // namespace

namespace SystemSystemctl {

ServiceCommandResult run(const std::vector<std::string>& arguments) {
  ProcessRequest request;
  request.executable = ChildProcess::isExecutableFile("/usr/bin/systemctl") ? "/usr/bin/systemctl"
                                                                            : "/bin/systemctl";
  request.arguments = {"--user"};
  request.arguments.insert(request.arguments.end(), arguments.begin(), arguments.end());
  request.environment = ChildProcess::currentEnvironment();
  request.timeout = std::chrono::seconds(30);
  try {
    const auto result = ChildProcess::run(request);
    return {result.exitStatus, result.standardOutput + result.standardError};
  } catch (const std::exception& error) {
    return {127, error.what()};
  }
}

}  // namespace SystemSystemctl

SystemdUserTimer::SystemdUserTimer(std::filesystem::path unitFolder, ServiceCommandRunner systemctl,
                                   std::optional<std::string> home)
    : unitFolder_(std::move(unitFolder)), systemctl_(std::move(systemctl)), home_(std::move(home)) {}

bool SystemdUserTimer::filesMatch(const std::filesystem::path& executablePath, int minute) const {
  try {
    return Durable::readWhole(serviceURL()) == SystemdUnits::service(executablePath, home_) &&
           Durable::readWhole(fileURL()) == SystemdUnits::timer(minute);
  } catch (const std::exception&) {
    return false;
  }
}

std::filesystem::path SystemdUserTimer::standardUnitFolder() {
  if (const char* config = std::getenv("XDG_CONFIG_HOME"); config && *config == '/')
    return std::filesystem::path(config) / "systemd/user";
  return AppSupport::homeFolder() / ".config/systemd/user";
}

SchedulerState SystemdUserTimer::current(bool askSystemd) {
  SchedulerState state;
  std::optional<std::string> timerText, serviceText;
  try {
    timerText = Durable::readWhole(fileURL());
    serviceText = Durable::readWhole(serviceURL());
  } catch (const std::exception&) {
    timerText = timerText.value_or("");
  }
  state.installed = timerText.has_value() || serviceText.has_value();
  if (timerText) state.minute = minuteFromTimer(*timerText);
  if (serviceText) state.executablePath = executableFromService(*serviceText);
  // Loaded means running now and enabled for the next session too: a timer
  // disabled behind the program's back still runs until the user logs out.
  if (askSystemd)
    state.loaded = systemctl_({"is-active", SystemdUnits::timerName}).status == 0 &&
                   systemctl_({"is-enabled", SystemdUnits::timerName}).status == 0;
  return state;
}

BackupScheduler::Outcome SystemdUserTimer::reconcile(bool enabled,
                                                     const std::filesystem::path& executablePath,
                                                     int minute) {
  const auto state = current(true);
  if (!enabled) {
    if (!state.installed && !state.loaded.value_or(false)) return Outcome::unchanged;
    remove();
    return Outcome::removed;
  }
  if (executablePath.empty() || !executablePath.is_absolute())
    throw SchedulerError(
        "Corvane could not tell where it is installed, so it cannot set up scheduled backups. "
        "Start it by its full path and try again.");
  if (state.installed && state.loaded.value_or(false) && filesMatch(executablePath, minute))
    return Outcome::unchanged;
  install(executablePath, minute);
  return Outcome::installed;
}

void SystemdUserTimer::install(const std::filesystem::path& executablePath, int minute) {
  try {
    std::filesystem::create_directories(unitFolder_);
    Durable::replace(serviceURL(), SystemdUnits::service(executablePath, home_), 0644);
    Durable::replace(fileURL(), SystemdUnits::timer(minute), 0644);
  } catch (const std::exception&) {
    throw SchedulerError(
        "Corvane could not save its schedule file. Scheduled backups will not run.");
  }
  systemctl_({"daemon-reload"});
  // restart rather than start, so that a changed minute takes effect now.
  const auto enable = systemctl_({"enable", SystemdUnits::timerName});
  const auto start = systemctl_({"restart", SystemdUnits::timerName});
  if (enable.status != 0 || start.status != 0)
    throw SchedulerError(
        "systemd did not accept the backup schedule. Check that your user session runs systemd "
        "(\"systemctl --user status\" answers), then turn scheduled backups on again.");
}

void SystemdUserTimer::remove() {
  // Refused when the timer is not loaded, which is fine.
  systemctl_({"disable", "--now", SystemdUnits::timerName});
  std::error_code timerError, serviceError;
  std::filesystem::remove(fileURL(), timerError);
  std::filesystem::remove(serviceURL(), serviceError);
  if (timerError || serviceError)
    throw SchedulerError("Corvane could not remove its schedule file.");
  systemctl_({"daemon-reload"});
}

namespace {

// CORVANE_SCHEDULER_FOLDER: the scheduler's files go to that folder and its
// service commands are only written to "service-commands.log" there, one call
// a line; is-active / print answer from the files present. For tests and
// trials of the program itself, which must never install anything for the
// machine's user.
ServiceCommandRunner recordingRunner(std::filesystem::path folder, std::string program,
                                     std::filesystem::path installed) {
  return [folder = std::move(folder), program = std::move(program),
          installed = std::move(installed)](const std::vector<std::string>& arguments) {
    std::string line = program;
    for (const auto& argument : arguments) line += " " + argument;
    try {
      std::filesystem::create_directories(folder);
      Durable::append(folder / "service-commands.log", line + "\n", 0600);
    } catch (const std::exception&) {
    }
    const bool asks = !arguments.empty() && (arguments[0] == "is-active" ||
                                             arguments[0] == "is-enabled" || arguments[0] == "print");
    std::error_code error;
    return ServiceCommandResult{asks && !std::filesystem::exists(installed, error) ? 3 : 0, ""};
  };
}

}  // namespace

std::unique_ptr<BackupScheduler> BackupScheduler::forThisMachine() {
  const char* injected = std::getenv("CORVANE_SCHEDULER_FOLDER");
  const bool recording = injected != nullptr && *injected == '/';
#ifdef __APPLE__
  const std::filesystem::path folder =
      recording ? std::filesystem::path(injected) : AppSupport::homeFolder() / "Library/LaunchAgents";
  return std::make_unique<LaunchAgentManager>(
      folder, ::getuid(),
      recording ? recordingRunner(folder, "launchctl", folder / LaunchAgentPlist::fileName)
                : ServiceCommandRunner(SystemLaunchctl::run));
#else
  const std::filesystem::path folder =
      recording ? std::filesystem::path(injected) : SystemdUserTimer::standardUnitFolder();
  std::optional<std::string> home;
  if (const char* corvaneHome = std::getenv("CORVANE_HOME"); corvaneHome && *corvaneHome == '/')
    home = corvaneHome;
  return std::make_unique<SystemdUserTimer>(
      folder,
      recording ? recordingRunner(folder, "systemctl --user", folder / SystemdUnits::timerName)
                : ServiceCommandRunner(SystemSystemctl::run),
      home);
#endif
}

}  // namespace corvane
