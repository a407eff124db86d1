// A private session bus and a desktop notification server of the tests' own, on its own thread:
// it records what it is sent and emits the signals a user's clicks would.
#pragma once

#include "support/TemporaryFolder.h"

#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <poll.h>
#include <string>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <systemd/sd-bus.h>

namespace OstrelTest {

// A dbus-daemon with no activatable services, whose address goes into DBUS_SESSION_BUS_ADDRESS.
// It dies with the test process even when a test crashes, and can be stopped and started again at
// the same address.
class PrivateBus {
public:
    PrivateBus() {
        folder_.write("bus.conf",
                      "<busconfig><type>session</type><listen>unix:path=" + folder_ / "socket" +
                          "</listen><auth>EXTERNAL</auth><policy context=\"default\">"
                          "<allow send_destination=\"*\" eavesdrop=\"true\"/><allow eavesdrop=\"true\"/>"
                          "<allow own=\"*\"/>"
                          "</policy></busconfig>");
        if (const char* before = std::getenv("DBUS_SESSION_BUS_ADDRESS")) before_ = before;
        start();
        ::setenv("DBUS_SESSION_BUS_ADDRESS", address_.c_str(), 1);
    }
    ~PrivateBus() {
        stop();
        if (before_)
            ::setenv("DBUS_SESSION_BUS_ADDRESS", before_->c_str(), 1);
        else
            ::unsetenv("DBUS_SESSION_BUS_ADDRESS");
    }

    // Returns once the bus listens.
    void start() {
        std::filesystem::remove(folder_ / "socket");
        const std::string program = "/usr/bin/dbus-daemon";
        const std::string configArgument = "--config-file=" + folder_ / "bus.conf";
        int out[2];
        if (::pipe2(out, O_CLOEXEC) != 0) return;
        pid_ = ::fork();
        if (pid_ == 0) {
            // Only async-signal-safe calls between fork and exec: the test process has threads.
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            ::dup2(out[1], STDOUT_FILENO);
            // Its complaints about resource limits it may not raise are noise here.
            int null = ::open("/dev/null", O_WRONLY);
            ::dup2(null, STDERR_FILENO);
            const char* argv[] = {program.c_str(), configArgument.c_str(), "--print-address", "--nofork",
                                  nullptr};
            ::execv(program.c_str(), const_cast<char* const*>(argv));
            ::_exit(127);
        }
        ::close(out[1]);
        // The address comes once the bus listens; end of file means it failed to start.
        std::string printed;
        char c = 0;
        while (pid_ > 0 && ::read(out[0], &c, 1) == 1 && c != '\n')
            printed += c;
        ::close(out[0]);
        // Without the printed guid, which a restarted bus doesn't keep, so that clients can come back.
        if (!printed.empty()) address_ = "unix:path=" + folder_ / "socket";
    }
    void stop() {
        if (pid_ <= 0) return;
        ::kill(pid_, SIGTERM);
        ::waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }

    const std::string& address() const { return address_; }
    std::string folder() const { return folder_.path(); }

private:
    TemporaryFolder folder_;
    std::string address_;
    std::optional<std::string> before_; // the address the tests were started with
    pid_t pid_ = -1;
};

struct Received {
    std::uint32_t id = 0;
    std::uint32_t replacesId = 0;
    std::string icon, summary, body;
    std::vector<std::string> actions; // key, label, key, label ...
    std::map<std::string, std::string> hints;
    std::int32_t expireTimeout = 0;
};

class NotificationServer {
public:
    explicit NotificationServer(std::vector<std::string> capabilities)
        : capabilities_(std::move(capabilities)) {
        if (sd_bus_open_user(&bus_) < 0 ||
            sd_bus_add_object(bus_, nullptr, path, &NotificationServer::handle, this) < 0 ||
            sd_bus_request_name(bus_, "org.freedesktop.Notifications", 0) < 0)
            return;
        thread_ = std::thread([this] { run(); });
    }
    ~NotificationServer() {
        stop();
        ::close(wake_);
    }

    std::vector<Received> received() const {
        std::lock_guard lock(mutex_);
        return received_;
    }
    std::vector<std::uint32_t> closed() const {
        std::lock_guard lock(mutex_);
        return closed_;
    }
    // The next `count` Notify calls are recorded but never answered: a server that hangs.
    void leaveUnanswered(int count) {
        std::lock_guard lock(mutex_);
        unanswered_ = count;
    }
    void emitAction(std::uint32_t id, std::string key) {
        perform([this, id, key] {
            sd_bus_emit_signal(bus_, path, interface, "ActionInvoked", "us", id, key.c_str());
        });
    }
    void emitClosed(std::uint32_t id, std::uint32_t reason) {
        perform([this, id, reason] {
            sd_bus_emit_signal(bus_, path, interface, "NotificationClosed", "uu", id, reason);
        });
    }
    // Leaves the bus, which tells every client that the service is gone.
    void stop() {
        if (thread_.joinable()) {
            perform({});
            thread_.join();
        }
        bus_ = sd_bus_flush_close_unref(bus_);
    }

private:
    static constexpr const char* path = "/org/freedesktop/Notifications";
    static constexpr const char* interface = "org.freedesktop.Notifications";

    void perform(std::function<void()> command) {
        std::lock_guard lock(mutex_);
        commands_.push_back(std::move(command)); // an empty command stops the server
        std::uint64_t one = 1;
        [[maybe_unused]] auto written = ::write(wake_, &one, sizeof one);
    }

    void run() {
        for (;;) {
            while (sd_bus_process(bus_, nullptr) > 0) {
            }
            std::vector<std::function<void()>> commands;
            {
                std::lock_guard lock(mutex_);
                commands.swap(commands_);
            }
            for (auto& command : commands) {
                if (!command) return;
                command();
            }
            sd_bus_flush(bus_);
            std::uint64_t until = 0;
            sd_bus_get_timeout(bus_, &until);
            timespec now{};
            ::clock_gettime(CLOCK_MONOTONIC, &now);
            std::uint64_t nowUs = std::uint64_t(now.tv_sec) * 1000000 + std::uint64_t(now.tv_nsec) / 1000;
            int timeout = until == UINT64_MAX ? -1 : until <= nowUs ? 0 : int((until - nowUs) / 1000 + 1);
            pollfd fds[] = {{sd_bus_get_fd(bus_), short(sd_bus_get_events(bus_)), 0}, {wake_, POLLIN, 0}};
            ::poll(fds, 2, timeout);
            std::uint64_t count = 0;
            if (fds[1].revents != 0) [[maybe_unused]]
                auto n = ::read(wake_, &count, sizeof count);
        }
    }

    static int handle(sd_bus_message* call, void* userdata, sd_bus_error*) {
        auto* self = static_cast<NotificationServer*>(userdata);
        sd_bus_message* reply = nullptr;
        if (sd_bus_message_is_method_call(call, interface, "GetCapabilities") > 0) {
            sd_bus_message_new_method_return(call, &reply);
            sd_bus_message_open_container(reply, 'a', "s");
            for (const auto& name : self->capabilities_)
                sd_bus_message_append(reply, "s", name.c_str());
            sd_bus_message_close_container(reply);
        } else if (sd_bus_message_is_method_call(call, interface, "Notify") > 0) {
            Received r;
            const char *app, *icon, *summary, *body;
            char** actions = nullptr;
            sd_bus_message_read(call, "susss", &app, &r.replacesId, &icon, &summary, &body);
            r.icon = icon, r.summary = summary, r.body = body;
            sd_bus_message_read_strv(call, &actions);
            for (char** a = actions; a != nullptr && *a != nullptr; ++a)
                r.actions.emplace_back(*a), std::free(*a);
            std::free(actions);
            sd_bus_message_enter_container(call, 'a', "{sv}");
            while (sd_bus_message_enter_container(call, 'e', "sv") > 0) {
                const char *key, *value;
                sd_bus_message_read(call, "s", &key);
                if (sd_bus_message_read(call, "v", "s", &value) > 0) r.hints[key] = value;
                sd_bus_message_exit_container(call);
            }
            sd_bus_message_exit_container(call);
            sd_bus_message_read(call, "i", &r.expireTimeout);
            std::lock_guard lock(self->mutex_);
            r.id = r.replacesId != 0 ? r.replacesId : self->nextId_++;
            self->received_.push_back(r);
            if (self->unanswered_ > 0) {
                --self->unanswered_;
                return 1;
            }
            sd_bus_message_new_method_return(call, &reply);
            sd_bus_message_append(reply, "u", r.id);
        } else if (sd_bus_message_is_method_call(call, interface, "CloseNotification") > 0) {
            std::uint32_t id = 0;
            sd_bus_message_read(call, "u", &id);
            {
                std::lock_guard lock(self->mutex_);
                self->closed_.push_back(id);
            }
            sd_bus_message_new_method_return(call, &reply);
            sd_bus_emit_signal(self->bus_, path, interface, "NotificationClosed", "uu", id, 3u);
        } else if (sd_bus_message_is_method_call(call, interface, "GetServerInformation") > 0) {
            sd_bus_message_new_method_return(call, &reply);
            sd_bus_message_append(reply, "ssss", "test-server", "ostrel-tests", "1", "1.2");
        } else {
            return 0;
        }
        sd_bus_send(nullptr, reply, nullptr);
        sd_bus_message_unref(reply);
        return 1;
    }

    std::vector<std::string> capabilities_;
    sd_bus* bus_ = nullptr;
    int wake_ = ::eventfd(0, EFD_CLOEXEC);
    std::thread thread_;
    mutable std::mutex mutex_;
    std::vector<std::function<void()>> commands_;
    std::vector<Received> received_;
    std::vector<std::uint32_t> closed_;
    std::uint32_t nextId_ = 1;
    int unanswered_ = 0;
};

} // namespace OstrelTest
