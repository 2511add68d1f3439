#include "tray/settings_window.h"

#include <QCheckBox>
#include <QComboBox>
#include <QFormLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QPointer>
#include <QPushButton>
#include <QScreen>
#include <QScrollArea>
#include <QScrollBar>
#include <QSpinBox>
#include <QVBoxLayout>

#include "audio/capture_messages.h"
#include "automation/automation_messages.h"
#include "tray/backend.h"
#include "tray/language_choice.h"
#include "tray/tray_messages.h"
#include "tray/ui_text.h"

namespace vell::tray {

namespace m = messages;

namespace {
QLabel* note(QWidget* parent, const char* name) {
    auto* label = new QLabel(parent);
    label->setObjectName(name);
    label->setWordWrap(true);
    label->setForegroundRole(QPalette::PlaceholderText);
    return label;
}
}  // namespace

SettingsWindow::SettingsWindow(Backend& backend, UserDefaults& defaults, QWidget* parent)
    : QWidget(parent, Qt::Window), backend_(backend), defaults_(defaults) {
    setObjectName("settings");
    auto* outer = new QVBoxLayout(this);
    auto* scroll = new QScrollArea(this);
    scroll_ = scroll;
    scroll->setWidgetResizable(true);
    scroll->setFrameShape(QFrame::NoFrame);
    // Long pages scroll down; sideways the window is as wide as its widest line needs.
    scroll->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    outer->addWidget(scroll);
    auto* content = new QWidget(scroll);
    scroll->setWidget(content);
    auto* layout = new QVBoxLayout(content);

    general_ = new QGroupBox(content);
    auto* g = new QVBoxLayout(general_);
    taskSwitcher_ = new QCheckBox(general_);
    taskSwitcher_->setObjectName("taskSwitcher");
    taskSwitcherNote_ = note(general_, "taskSwitcherNote");
    openAtLogin_ = new QCheckBox(general_);
    openAtLogin_->setObjectName("openAtLogin");
    loginStatus_ = note(general_, "loginStatus");
    auto* languageRow = new QHBoxLayout();
    languageLabel_ = new QLabel(general_);
    language_ = new QComboBox(general_);
    language_->setObjectName("language");
    language_->addItem(QString(), "system");
    language_->addItem(QString(), "en");
    language_->addItem(QString(), "es");
    languageLabel_->setBuddy(language_);
    languageRow->addWidget(languageLabel_);
    languageRow->addWidget(language_, 1);
    g->addWidget(taskSwitcher_);
    g->addWidget(taskSwitcherNote_);
    g->addWidget(openAtLogin_);
    g->addWidget(loginStatus_);
    g->addLayout(languageRow);
    layout->addWidget(general_);

    microphones_ = new QGroupBox(content);
    auto* mf = new QFormLayout(microphones_);
    recordingMic_ = new QComboBox(microphones_);
    recordingMic_->setObjectName("recordingMicrophone");
    insuranceMic_ = new QComboBox(microphones_);
    insuranceMic_->setObjectName("insuranceMicrophone");
    recordingMicLabel_ = new QLabel(microphones_);
    recordingMicLabel_->setBuddy(recordingMic_);
    insuranceMicLabel_ = new QLabel(microphones_);
    insuranceMicLabel_->setBuddy(insuranceMic_);
    mf->addRow(recordingMicLabel_, recordingMic_);
    mf->addRow(insuranceMicLabel_, insuranceMic_);
    bluetoothNote_ = note(microphones_, "bluetoothNote");
    hostNote_ = note(microphones_, "hostNote");
    mf->addRow(bluetoothNote_);
    mf->addRow(hostNote_);
    layout->addWidget(microphones_);

    insurance_ = new QGroupBox(content);
    auto* inf = new QFormLayout(insurance_);
    insuranceSwitch_ = new QCheckBox(insurance_);
    insuranceSwitch_->setObjectName("insuranceSwitch");
    window_ = new QSpinBox(insurance_);
    window_->setObjectName("insuranceWindow");
    window_->setRange(5, 60);
    windowLabel_ = new QLabel(insurance_);
    windowLabel_->setBuddy(window_);
    inf->addRow(insuranceSwitch_);
    inf->addRow(windowLabel_, window_);
    layout->addWidget(insurance_);

    automatic_ = new QGroupBox(content);
    auto* a = new QVBoxLayout(automatic_);
    calls_ = new QCheckBox(automatic_);
    calls_->setObjectName("recordCalls");
    callsNote_ = note(automatic_, "callsNote");
    calendar_ = new QCheckBox(automatic_);
    calendar_->setObjectName("recordCalendar");
    calendarNote_ = note(automatic_, "calendarNote");
    sourcesLabel_ = new QLabel(automatic_);
    sources_ = new QListWidget(automatic_);
    sources_->setObjectName("calendarSources");
    sources_->setMaximumHeight(sources_->fontMetrics().height() * 6);
    auto* sourceRow = new QHBoxLayout();
    newSource_ = new QLineEdit(automatic_);
    newSource_->setObjectName("newCalendarSource");
    addSource_ = new QPushButton(automatic_);
    addSource_->setObjectName("addCalendarSource");
    removeSource_ = new QPushButton(automatic_);
    removeSource_->setObjectName("removeCalendarSource");
    sourceRow->addWidget(newSource_, 1);
    sourceRow->addWidget(addSource_);
    sourceRow->addWidget(removeSource_);
    sourceError_ = new QLabel(automatic_);
    sourceError_->setObjectName("calendarError");
    sourceError_->setWordWrap(true);
    sourcesLabel_->setBuddy(newSource_);
    a->addWidget(calls_);
    a->addWidget(callsNote_);
    a->addWidget(calendar_);
    a->addWidget(calendarNote_);
    a->addWidget(sourcesLabel_);
    a->addWidget(sources_);
    a->addLayout(sourceRow);
    a->addWidget(sourceError_);
    layout->addWidget(automatic_);
    layout->addStretch();

    connect(taskSwitcher_, &QCheckBox::toggled, this, [this](bool on) { backend_.setShowsDockIcon(on); });
    connect(openAtLogin_, &QCheckBox::toggled, this, [this](bool on) { backend_.setOpensAtLogin(on); });
    connect(language_, &QComboBox::activated, this, [this](int index) {
        chooseLanguage(defaults_, language_->itemData(index).toString().toStdString());
    });
    connect(recordingMic_, &QComboBox::activated, this, [this](int index) {
        backend_.setMicrophone(false, recordingMic_->itemData(index).toString().toStdString());
    });
    connect(insuranceMic_, &QComboBox::activated, this, [this](int index) {
        backend_.setMicrophone(true, insuranceMic_->itemData(index).toString().toStdString());
    });
    connect(insuranceSwitch_, &QCheckBox::toggled, this, [this](bool on) {
        if (on && !backend_.state().privacyAccepted) {
            QSignalBlocker block(insuranceSwitch_);
            insuranceSwitch_->setChecked(false);
            emit privacyExplanationNeeded();
            return;
        }
        if (on) backend_.enableInsurance();
        else backend_.disableInsurance();
    });
    connect(window_, &QSpinBox::editingFinished, this, [this] { backend_.setInsuranceWindow(window_->value()); });
    connect(calls_, &QCheckBox::toggled, this, [this](bool on) { backend_.setCallsEnabled(on); });
    connect(calendar_, &QCheckBox::toggled, this, [this](bool on) { backend_.setCalendarEnabled(on); });
    auto answer = [this](std::optional<std::string> error) { sourceError_->setText(error ? q(*error) : QString()); };
    connect(addSource_, &QPushButton::clicked, this, [this, answer] {
        const auto source = newSource_->text().trimmed().toStdString();
        if (source.empty()) return;
        QPointer<SettingsWindow> self(this);
        backend_.addCalendarSource(source, [self, answer](std::optional<std::string> error) {
            if (!self) return;
            answer(error);
            if (!error) self->newSource_->clear();
        });
    });
    connect(newSource_, &QLineEdit::returnPressed, addSource_, &QPushButton::click);
    connect(removeSource_, &QPushButton::clicked, this, [this, answer] {
        auto* item = sources_->currentItem();
        if (!item) return;
        QPointer<SettingsWindow> self(this);
        backend_.removeCalendarSource(item->text().toStdString(), [self, answer](std::optional<std::string> error) {
            if (self) answer(error);
        });
    });
    connect(&backend_, &Backend::changed, this, &SettingsWindow::render);
    connect(&languageSignal(), &LanguageSignal::changed, this, &SettingsWindow::render);
    render();
    // Sized from its content in this language and font: its width, and as much of its
    // height as a screen holds.
    const QRect area = screen() ? screen()->availableGeometry() : QRect(0, 0, 1920, 1080);
    resize(std::max(minimumSizeHint().width(), fontMetrics().averageCharWidth() * 80),
           std::min(scroll_->widget()->sizeHint().height() + fontMetrics().height() * 2, area.height() * 4 / 5));
}

void SettingsWindow::fillMicrophones(QComboBox* box, const std::string& chosen) {
    const auto& options = backend_.state().microphones;
    QSignalBlocker block(box);
    box->clear();
    for (const auto& o : options) box->addItem(q(o.label), QString::fromStdString(o.encoded));
    box->setCurrentIndex(std::max(0, box->findData(QString::fromStdString(chosen))));
}

void SettingsWindow::render() {
    const auto& s = backend_.state();
    const bool local = !backend_.remote();
    setWindowTitle(q(m::kSettingsTitle));
    general_->setTitle(q(m::kGeneral));
    taskSwitcher_->setText(q(m::kShowInTaskSwitcher));
    taskSwitcherNote_->setText(q(m::kShowInTaskSwitcherNote));
    openAtLogin_->setText(q(m::kOpenAtLogin));
    {
        QSignalBlocker a(taskSwitcher_), b(openAtLogin_), c(insuranceSwitch_), d(calls_), e(calendar_), f(window_);
        taskSwitcher_->setChecked(s.showsDockIcon);
        openAtLogin_->setChecked(s.opensAtLogin);
        insuranceSwitch_->setChecked(s.insuranceEnabled);
        calls_->setChecked(s.callsEnabled);
        calendar_->setChecked(s.calendarEnabled);
        if (!window_->hasFocus()) window_->setValue(s.insuranceWindowMinutes);
    }
    loginStatus_->setText(s.loginItemMissing    ? q(m::kLoginMissing)
                          : s.loginNeedsApproval ? q(m::kLoginApproval)
                          : s.opensAtLogin       ? q(m::kLoginEnabled)
                                                 : q(m::kLoginOff));
    languageLabel_->setText(q(m::kLanguage));
    language_->setItemText(0, q(m::kLanguageSystem));
    language_->setItemText(1, q(m::kLanguageEnglish));
    language_->setItemText(2, q(m::kLanguageSpanish));
    {
        QSignalBlocker block(language_);
        language_->setCurrentIndex(std::max(0, language_->findData(QString::fromStdString(storedLanguageChoice(defaults_)))));
    }

    microphones_->setTitle(q(m::kMicrophones));
    recordingMicLabel_->setText(q(m::kForRecordings));
    insuranceMicLabel_->setText(q(m::kForInsurance));
    if (!recordingMic_->view()->isVisible()) fillMicrophones(recordingMic_, s.recordingMicrophone);
    if (!insuranceMic_->view()->isVisible()) fillMicrophones(insuranceMic_, s.insuranceMicrophone);
    recordingMic_->setEnabled(local);
    insuranceMic_->setEnabled(local);
    const bool bluetooth = std::any_of(s.microphones.begin(), s.microphones.end(), [](const MicrophoneOption& o) { return o.bluetooth; });
    bluetoothNote_->setText(q(audio::messages::kBluetoothNote));
    bluetoothNote_->setVisible(bluetooth);
    hostNote_->setText(q(m::kHostKeepsThis));
    hostNote_->setVisible(!local);
    taskSwitcher_->setEnabled(true);

    insurance_->setTitle(q(m::kInsuranceMode));
    insuranceSwitch_->setText(q(m::kKeepInsurance));
    windowLabel_->setText(q(m::kInsuranceWindow));
    window_->setSuffix(q(m::kMinutesSuffix));

    automatic_->setTitle(q(m::kAutomatic));
    calls_->setText(q(m::kRecordCalls));
    callsNote_->setText(q(m::kRecordCallsExplanation));
    calendar_->setText(q(automation::messages::kRecordCalendarMeetings));
    calendarNote_->setText(q(automation::messages::kRecordCalendarMeetingsExplanation));
    sourcesLabel_->setText(q(m::kCalendars));
    newSource_->setPlaceholderText(q(m::kCalendarPlaceholder));
    addSource_->setText(q(m::kAdd));
    removeSource_->setText(q(m::kRemove));
    QStringList sources;
    for (const auto& source : s.calendarSources) sources << q(source);
    QStringList shown;
    for (int i = 0; i < sources_->count(); ++i) shown << sources_->item(i)->text();
    if (shown != sources) {
        sources_->clear();
        sources_->addItems(sources);
    }
    sources_->setToolTip(sources.isEmpty() ? q(m::kNoCalendars) : QString());
    removeSource_->setEnabled(!sources.isEmpty());
    // The texts of this language decide the narrowest the window may be.
    scroll_->setMinimumWidth(scroll_->widget()->minimumSizeHint().width() + scroll_->verticalScrollBar()->sizeHint().width() +
                             2 * scroll_->frameWidth());
}

}  // namespace vell::tray
