#include "tray/main_window.h"

#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QPushButton>
#include <QShortcut>
#include <QStyle>
#include <QTabWidget>
#include <QTableWidget>
#include <QVBoxLayout>

#include "automation/automation_messages.h"
#include "tray/backend.h"
#include "tray/icons.h"
#include "tray/language_choice.h"
#include "tray/live_view.h"
#include "tray/results_view.h"
#include "tray/tray_messages.h"
#include "tray/ui_text.h"

namespace vell::tray {

namespace m = messages;

MainWindow::MainWindow(Backend& backend, QWidget* parent) : QWidget(parent, Qt::Window), backend_(backend) {
    setObjectName("main");
    auto* layout = new QVBoxLayout(this);
    auto* top = new QHBoxLayout();
    record_ = new QPushButton(this);
    record_->setObjectName("recordButton");
    elapsed_ = new QLabel(this);
    elapsed_->setObjectName("elapsedLabel");
    account_ = new QLabel(this);
    account_->setObjectName("accountLabel");
    signIn_ = new QPushButton(this);
    signIn_->setObjectName("signInButton");
    top->addWidget(record_);
    top->addWidget(elapsed_);
    top->addStretch();
    top->addWidget(account_);
    top->addWidget(signIn_);
    layout->addLayout(top);

    tabs_ = new QTabWidget(this);
    tabs_->setObjectName("mainTabs");
    computer_ = new QWidget(tabs_);
    computer_->setObjectName("computerPage");
    auto* computerLayout = new QVBoxLayout(computer_);
    results_ = new ResultsView(backend_, tabs_);
    live_ = new LiveView(backend_, tabs_);
    tabs_->addTab(computer_, QString());
    tabs_->addTab(results_, QString());
    tabs_->addTab(live_, QString());
    layout->addWidget(tabs_, 1);

    heading_ = new QLabel(computer_);
    QFont bold = heading_->font();
    bold.setBold(true);
    bold.setPointSizeF(bold.pointSizeF() * 1.2);
    heading_->setFont(bold);
    computerLayout->addWidget(heading_);
    table_ = new QTableWidget(0, 4, computer_);
    table_->setObjectName("recordingsTable");
    table_->setEditTriggers(QAbstractItemView::NoEditTriggers);
    table_->setSelectionBehavior(QAbstractItemView::SelectRows);
    table_->verticalHeader()->hide();
    table_->horizontalHeader()->setStretchLastSection(true);
    table_->horizontalHeader()->setSectionResizeMode(QHeaderView::ResizeToContents);
    table_->setAlternatingRowColors(true);
    computerLayout->addWidget(table_, 1);
    empty_ = new QLabel(computer_);
    empty_->setObjectName("emptyLabel");
    empty_->setWordWrap(true);
    empty_->setAlignment(Qt::AlignCenter);
    computerLayout->addWidget(empty_);

    auto* bottom = new QHBoxLayout();
    upload_ = new QPushButton(this);
    upload_->setObjectName("uploadButton");
    undo_ = new QPushButton(this);
    undo_->setObjectName("undoButton");
    recover_ = new QPushButton(this);
    recover_->setObjectName("recoverButton");
    settings_ = new QPushButton(this);
    settings_->setObjectName("settingsButton");
    bottom->addWidget(upload_);
    bottom->addWidget(undo_);
    bottom->addStretch();
    bottom->addWidget(recover_);
    bottom->addWidget(settings_);
    quit_ = new QPushButton(this);
    quit_->setObjectName("quitButton");
    bottom->addWidget(quit_);
    layout->addLayout(bottom);
    // Without a tray this window is the way in: its commands have the usual keys, which
    // work while it is shown (also on a bare X server, where no window manager tells Qt
    // which window is active).
    auto shortcut = [this](const QKeySequence& keys, QPushButton* button) {
        auto* s = new QShortcut(keys, this, button, &QPushButton::click, Qt::ApplicationShortcut);
        button->setToolTip(keys.toString(QKeySequence::NativeText));
        return s;
    };
    shortcut(QKeySequence(Qt::CTRL | Qt::Key_R), record_);
    shortcut(QKeySequence::Quit, quit_);

    connect(record_, &QPushButton::clicked, this, [this] {
        if (backend_.state().recording) backend_.stopRecording(false);
        else backend_.startRecording();
    });
    connect(signIn_, &QPushButton::clicked, this, [this] {
        if (backend_.state().phase == SignInPhase::signedIn) backend_.signOut();
        else emit openWindow("login");
    });
    connect(upload_, &QPushButton::clicked, this, [this] { backend_.retryUploads(); });
    connect(undo_, &QPushButton::clicked, this, [this] { backend_.undo(); });
    connect(recover_, &QPushButton::clicked, this, [this] { emit openWindow("recover"); });
    connect(settings_, &QPushButton::clicked, this, [this] { emit openWindow("settings"); });
    connect(quit_, &QPushButton::clicked, this, [this] { emit quitRequested(); });
    connect(&backend_, &Backend::changed, this, &MainWindow::render);
    connect(&languageSignal(), &LanguageSignal::changed, this, &MainWindow::render);
    resize(fontMetrics().averageCharWidth() * 100, fontMetrics().height() * 30);
    render();
}

void MainWindow::showPage(const QString& page) {
    if (page == "results") tabs_->setCurrentWidget(results_);
    else if (page == "live") tabs_->setCurrentWidget(live_);
    else tabs_->setCurrentWidget(computer_);
}

void MainWindow::render() {
    const auto& s = backend_.state();
    setWindowTitle(q(m::kAppName));
    tabs_->setTabText(tabs_->indexOf(computer_), q(m::kTabOnThisComputer));
    tabs_->setTabText(tabs_->indexOf(results_), q(m::kTabResults));
    tabs_->setTabText(tabs_->indexOf(live_), q(m::kTabLive));
    tabs_->setTabVisible(tabs_->indexOf(live_), live_->worthShowing());
    // A recording that starts brings its live advice forward, once: the user may go back.
    if (s.recording && !wasRecording_) tabs_->setCurrentWidget(live_);
    wasRecording_ = s.recording;
    record_->setText(s.recording ? q(m::kStop) : s.starting ? q(m::kStarting) : q(m::kRecord));
    record_->setIcon(s.recording ? style()->standardIcon(QStyle::SP_MediaStop) : recordSymbol());
    record_->setEnabled(!s.starting || s.recording);
    elapsed_->setText(s.recording ? elapsedText(s.elapsed) : QString());
    account_->setText(s.phase == SignInPhase::signedIn ? q(m::kSignedInAs) + q(s.email) : q(m::kNotSignedIn));
    signIn_->setText(s.phase == SignInPhase::signedIn ? q(m::kSignOut) : q(m::kSignInEllipsis));
    heading_->setText(q(m::kRecordings));
    table_->setHorizontalHeaderLabels({q(m::kColumnStarted), q(m::kColumnLength), q(m::kColumnStatus), q(m::kColumnError)});

    std::vector<const PendingRow*> rows;
    for (auto it = s.pending.rbegin(); it != s.pending.rend(); ++it) rows.push_back(&*it);
    table_->setRowCount(int(rows.size()));
    for (int i = 0; i < int(rows.size()); ++i) {
        const auto& r = *rows[i];
        const double length = r.finishedAt ? std::chrono::duration<double>(*r.finishedAt - r.startedAt).count()
                                           : (r.status == "recording" ? s.elapsed : 0);
        QString status = statusText(r.status);
        if (r.progress) status += QString(" %1 %").arg(int(*r.progress * 100));
        const QString cells[] = {dateText(r.startedAt), elapsedText(length), status, q(r.lastError)};
        for (int c = 0; c < 4; ++c) {
            auto* item = table_->item(i, c);
            if (!item) table_->setItem(i, c, item = new QTableWidgetItem());
            if (item->text() != cells[c]) item->setText(cells[c]);
            item->setData(Qt::UserRole, QString::fromStdString(r.id));
        }
    }
    empty_->setText(q(m::kNoRecordings));
    empty_->setVisible(rows.empty());
    table_->setVisible(!rows.empty());
    upload_->setText(q(m::kUploadNow));
    upload_->setEnabled(s.phase == SignInPhase::signedIn);
    undo_->setText(q(automation::messages::kUndo));
    undo_->setVisible(s.undoAvailable);
    recover_->setText(q(m::kRecoverSpeech));
    recover_->setEnabled(s.insuranceEnabled);
    settings_->setText(q(m::kSettingsEllipsis));
    quit_->setText(q(m::kQuitVell));
}

}  // namespace vell::tray
