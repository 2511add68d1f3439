#pragma once
// A host for the tray's widgets: the real core services and host on the Qt event loop, with
// fakes only at the edges (audio parts, the desktop's login item and notifications, the
// list of microphones) and, when a test signs in, the reference service over HTTP.
#include <QAbstractButton>
#include <QApplication>
#include <QTest>
#include <memory>

#include "app/core_services.h"
#include "app/host.h"
#include "audio/microphone_settings.h"
#include "automation/discarded_recordings.h"
#include "automation/running_automations.h"
#include "base/language.h"
#include "base/runtime.h"
#include "recording/recorder_service.h"
#include "service/api_client.h"
#include "tests/recording/recorder_fakes.h"
#include "tests/service/no_secret_service.h"
#include "tests/support/devserver_process.h"
#include "tests/support/temp_home.h"
#include "tray/language_choice.h"
#include "tray/local_backend.h"
#include "tray/qt_executor.h"
#include "tray/shell.h"

namespace vell::tray::test {

class FakeLoginItem final : public app::LoginItemService {
public:
    app::LoginItemStatus status() const override { return current; }
    Expected<Unit, std::string> registerItem() override {
        ++registers;
        current = app::LoginItemStatus::enabled;
        return Unit{};
    }
    Expected<Unit, std::string> unregisterItem() override {
        ++unregisters;
        current = app::LoginItemStatus::notRegistered;
        return Unit{};
    }
    app::LoginItemStatus current = app::LoginItemStatus::notRegistered;
    int registers = 0, unregisters = 0;
};

class FakeNotifications final : public app::NotificationCenter {
public:
    void registerCategories(const std::vector<app::NotificationCategory>&) override {}
    void post(const app::Notification& n) override { posted.push_back(n.title); }
    void withdraw(const std::string&) override {}
    std::vector<std::string> posted;
};

class FakeDevices final : public audio::InputDeviceProvider {
public:
    std::vector<audio::AudioInputDevice> devices() override { return list; }
    std::optional<std::string> systemDefaultUID() override { return defaultUID; }
    void setChangeHandler(std::function<void()>) override {}
    std::vector<audio::AudioInputDevice> list{{"alsa_input.usb-Headset", "USB Headset", audio::AudioInputDevice::Transport::usb, 3},
                                              {"alsa_input.pci-analog", "Built-in Audio", audio::AudioInputDevice::Transport::builtIn, 1}};
    std::optional<std::string> defaultUID = std::string("alsa_input.pci-analog");
};

// Waits on the event loop (the host's work and the widgets both run there).
template <class Pred>
bool waitFor(Pred pred, int milliseconds = 5000) {
    return QTest::qWaitFor(pred, milliseconds);
}

// Clicks a check box where its box is (a click in the middle of a wide row misses it).
inline void toggle(QAbstractButton* box) { QTest::mouseClick(box, Qt::LeftButton, {}, QPoint(box->fontMetrics().height() / 2 + 2, box->height() / 2)); }

template <class W = QWidget>
W* child(QObject* parent, const char* name) {
    auto* w = parent->findChild<W*>(name);
    EXPECT_NE(w, nullptr) << "no " << name;
    return w;
}

struct TrayRig {
    explicit TrayRig(std::string apiBase = "http://127.0.0.1:9/") : client(apiBase) {
        runtime::install(&exec, &clock);
        setInterfaceLanguage(Language::English);
        core = std::make_unique<app::CoreServices>(
            client, [this]() -> recording::RecorderService& {
                recorder = std::make_unique<recording::RecorderService>(rig.parts(), home.dataHome() / "rec");
                return *recorder;
            },
            home.defaults(), exec, clock);
        auto devices = std::make_unique<FakeDevices>();
        deviceList = devices.get();
        microphones = std::make_unique<audio::MicrophoneSettings>(std::move(devices), home.defaults(), false);
        app::HostPorts ports;
        ports.notifications = notifications;
        ports.loginItem = loginItem;
        host = std::make_unique<app::Host>(*core, ports, app::HostServices{}, home.defaults(), exec);
    }
    ~TrayRig() {
        shell.reset();
        backend.reset();
        automation::runningAutomations() = {};
        discards.reset();
        host.reset();
        core.reset();
        recorder.reset();
        microphones.reset();
        setInterfaceLanguage(Language::English);
        runtime::install(nullptr, nullptr);
    }

    // The host starts and the widgets come up over it.
    void start() {
        host->start();
        LocalParts parts;
        parts.host = host.get();
        parts.defaults = &home.defaults();
        parts.loginItem = loginItem;
        parts.microphones = [this] { return microphones.get(); };
        parts.copy = [this](const std::string& text) {
            copied.push_back(text);
            return !text.empty();
        };
        backend = std::make_unique<LocalBackend>(std::move(parts));
        backend->rebuild();  // what the loop's first turn does
        shell = std::make_unique<Shell>(*backend, home.defaults());
        shell->onQuit = [this] { ++quits; };
    }

    // The discard feature of the host, as the launch makes it (before start()).
    void startDiscards() {
        automation::DiscardedRecordings::Ports ports;
        ports.purgeServerCopy = [](const std::string&, std::function<void(std::optional<std::string>)> done) { done({}); };
        ports.post = [](const automation::AutomationNotice&) {};
        discards = std::make_unique<automation::DiscardedRecordings>(core->recorder(), home.defaults(), exec, clock, ports);
        discards->start();
        automation::runningAutomations().discards = discards.get();
    }

    void speak(Language language) {
        chooseLanguage(home.defaults(), language == Language::Spanish ? "es" : "en");
    }

    bool recording() { return core->recorder().state.isRecording.get(); }

    vell::test::TempHome home;
    service::testing::NoSecretService noKeyring;
    QtExecutor exec;
    SystemClock clock;
    service::APIClient client;
    recording::fakes::Rig rig;
    std::unique_ptr<recording::RecorderService> recorder;
    std::unique_ptr<app::CoreServices> core;
    FakeDevices* deviceList = nullptr;
    std::unique_ptr<audio::MicrophoneSettings> microphones;
    std::shared_ptr<FakeNotifications> notifications = std::make_shared<FakeNotifications>();
    std::shared_ptr<FakeLoginItem> loginItem = std::make_shared<FakeLoginItem>();
    std::unique_ptr<app::Host> host;
    std::unique_ptr<automation::DiscardedRecordings> discards;
    std::unique_ptr<LocalBackend> backend;
    std::unique_ptr<Shell> shell;
    std::vector<std::string> copied;
    int quits = 0;
};

}  // namespace vell::tray::test
