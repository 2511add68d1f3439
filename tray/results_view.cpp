#include "tray/results_view.h"

#include <QDialog>
#include <QDialogButtonBox>
#include <QFormLayout>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QPointer>
#include <QPushButton>
#include <QSplitter>
#include <QTabWidget>
#include <QTextBrowser>
#include <QVBoxLayout>
#include <algorithm>

#include "results/results_messages.h"
#include "tray/language_choice.h"
#include "tray/tray_messages.h"
#include "tray/ui_text.h"

namespace vell::tray {

namespace m = messages;
namespace rm = results::messages;

namespace {

// While a recording is still being processed the list is asked for again this often.
constexpr int kAgainMilliseconds = 5000;

QString recordingDate(const results::RecordingResult& r) {
    const long long ms = r.captureStartedAt.value_or(r.createdAt);
    if (ms <= 0) return q(r.filename);
    return dateText(WallTime(std::chrono::milliseconds(ms)));
}

QString lengthOf(const results::RecordingResult& r) { return elapsedText(double(r.durationMs) / 1000.0); }

// What the conversation was about (the summary's first line) on the first line, the date
// there until a summary exists; then the date, the length and the state.
QString rowText(const ResultItem& item) {
    const std::string about = item.result.firstSummaryLine(60);
    QString text = (about.empty() ? recordingDate(item.result) : q(about)) + "\n" +
                   (about.empty() ? QString() : recordingDate(item.result) + "  ·  ") + lengthOf(item.result) + "  ·  " +
                   q(item.result.stateSentence());
    if (!item.offline.empty()) text += q(m::kOfflineCopyNote);
    return text;
}

QString transcriptHtml(const results::RecordingResult& r) {
    QString html;
    for (const auto& line : r.transcript) {
        html += QString("<p><b>[%1] %2:</b> %3</p>")
                    .arg(q(results::conversationClock(line.startMs)), q(r.speakerName(line.speaker)).toHtmlEscaped(),
                         q(line.text).toHtmlEscaped());
    }
    return html;
}

QString cuesHtml(const results::RecordingResult& r) {
    auto cues = r.cues;
    std::stable_sort(cues.begin(), cues.end(), [](const live::Tile& a, const live::Tile& b) { return a.weight > b.weight; });
    QString html;
    for (const auto& cue : cues) {
        html += QString("<p><b>%1</b><br>%2</p>").arg(q(live::tileTitle(cue)).toHtmlEscaped(), q(live::tileText(cue)).toHtmlEscaped());
    }
    return html;
}

}  // namespace

ResultsView::ResultsView(Backend& backend, QWidget* parent) : QWidget(parent), backend_(backend) {
    setObjectName("resultsView");
    auto* layout = new QVBoxLayout(this);
    auto* split = new QSplitter(Qt::Horizontal, this);
    layout->addWidget(split);

    auto* left = new QWidget(split);
    auto* leftLayout = new QVBoxLayout(left);
    leftLayout->setContentsMargins(0, 0, 0, 0);
    listStatus_ = new QLabel(left);
    listStatus_->setObjectName("resultsStatus");
    listStatus_->setWordWrap(true);
    list_ = new QListWidget(left);
    list_->setObjectName("resultsList");
    list_->setWordWrap(true);
    list_->setSpacing(2);
    list_->setMinimumWidth(fontMetrics().averageCharWidth() * 30);
    refresh_ = new QPushButton(left);
    refresh_->setObjectName("refreshResults");
    leftLayout->addWidget(listStatus_);
    leftLayout->addWidget(list_, 1);
    leftLayout->addWidget(refresh_, 0, Qt::AlignLeft);

    auto* right = new QWidget(split);
    auto* rightLayout = new QVBoxLayout(right);
    rightLayout->setContentsMargins(0, 0, 0, 0);
    headline_ = new QLabel(right);
    headline_->setObjectName("detailHeadline");
    QFont bold = headline_->font();
    bold.setBold(true);
    headline_->setFont(bold);
    detailStatus_ = new QLabel(right);
    detailStatus_->setObjectName("detailStatus");
    detailStatus_->setWordWrap(true);
    tabs_ = new QTabWidget(right);
    tabs_->setObjectName("detailTabs");
    auto browser = [this](const char* name) {
        auto* b = new QTextBrowser(tabs_);
        b->setObjectName(name);
        b->setOpenExternalLinks(true);
        return b;
    };
    summary_ = browser("summaryText");
    transcript_ = browser("transcriptText");
    cues_ = browser("cuesText");
    tabs_->addTab(summary_, QString());
    tabs_->addTab(transcript_, QString());
    tabs_->addTab(cues_, QString());
    auto* actions = new QHBoxLayout();
    rename_ = new QPushButton(right);
    rename_->setObjectName("renameSpeakersButton");
    share_ = new QPushButton(right);
    share_->setObjectName("shareButton");
    action_ = new QLabel(right);
    action_->setObjectName("actionStatus");
    action_->setWordWrap(true);
    action_->setTextInteractionFlags(Qt::TextSelectableByMouse);
    rename_->setSizePolicy(QSizePolicy::Maximum, QSizePolicy::Fixed);
    share_->setSizePolicy(QSizePolicy::Maximum, QSizePolicy::Fixed);
    actions->addWidget(rename_);
    actions->addWidget(share_);
    actions->addWidget(action_, 1);
    actions->addStretch();
    rightLayout->addWidget(headline_);
    rightLayout->addWidget(detailStatus_);
    rightLayout->addWidget(tabs_, 1);
    rightLayout->addLayout(actions);
    split->addWidget(left);
    split->addWidget(right);
    split->setStretchFactor(0, 2);
    split->setStretchFactor(1, 3);

    connect(refresh_, &QPushButton::clicked, this, &ResultsView::refresh);
    connect(list_, &QListWidget::currentItemChanged, this, [this](QListWidgetItem* item) {
        if (item) choose(item->data(Qt::UserRole).toString().toStdString());
    });
    connect(rename_, &QPushButton::clicked, this, &ResultsView::openSpeakersDialog);
    connect(share_, &QPushButton::clicked, this, &ResultsView::share);
    connect(&backend_, &Backend::resultsChanged, this, [this] {
        if (loaded_) refresh();
    });
    connect(&languageSignal(), &LanguageSignal::changed, this, &ResultsView::render);
    again_.setInterval(kAgainMilliseconds);
    connect(&again_, &QTimer::timeout, this, [this] {
        if (isVisible()) refresh();
    });
    render();
}

void ResultsView::showEvent(QShowEvent* event) {
    QWidget::showEvent(event);
    if (!loaded_) refresh();
}

std::optional<std::string> ResultsView::shownID() const {
    if (!shown_) return std::nullopt;
    return shown_->result.id;
}

void ResultsView::refresh() {
    loaded_ = true;
    listing_ = true;
    const int run = ++listRun_;
    QPointer<ResultsView> self(this);
    backend_.listRecordings([self, run](Expected<std::vector<ResultItem>, std::string> answer) {
        if (!self || run != self->listRun_) return;
        self->listed(std::move(answer));
    });
    render();
}

void ResultsView::listed(Expected<std::vector<ResultItem>, std::string> answer) {
    listing_ = false;
    if (!answer) {
        // What was listed before stays; the sentence says why it is not fresh.
        listError_ = answer.error();
    } else {
        listError_.clear();
        items_ = std::move(*answer);
    }
    const bool unfinished = std::any_of(items_.begin(), items_.end(), [](const ResultItem& i) { return !i.result.finished(); });
    if (unfinished) again_.start();
    else again_.stop();
    fillList();
    // The chosen recording moved on (processed meanwhile): its results are asked for again.
    if (!chosen_.empty() && !loadingDetail_) {
        auto it = std::find_if(items_.begin(), items_.end(), [&](const ResultItem& i) { return i.result.id == chosen_; });
        if (it != items_.end() && (!shown_ || shown_->result.state != it->result.state)) choose(chosen_);
    }
    render();
}

void ResultsView::choose(const std::string& id) {
    if (id != chosen_) {
        actionText_.clear();
        shown_.reset();
    }
    chosen_ = id;
    loadingDetail_ = true;
    detailError_.clear();
    const int run = ++detailRun_;
    QPointer<ResultsView> self(this);
    backend_.recordingDetail(id, [self, run, id](Expected<ResultItem, std::string> answer) {
        if (!self || run != self->detailRun_) return;
        self->detailed(id, std::move(answer));
    });
    render();
}

void ResultsView::detailed(const std::string& id, Expected<ResultItem, std::string> answer) {
    loadingDetail_ = false;
    if (!answer) {
        detailError_ = answer.error();
    } else {
        shown_ = std::move(*answer);
        // The list shows what the detail says now.
        for (auto& item : items_) {
            if (item.result.id == id) {
                item.result.state = shown_->result.state;
                item.offline = shown_->offline;
            }
        }
        fillList();
    }
    render();
}

void ResultsView::fillList() {
    const QSignalBlocker quiet(list_);
    list_->clear();
    for (const auto& item : items_) {
        auto* row = new QListWidgetItem(rowText(item), list_);
        row->setData(Qt::UserRole, q(item.result.id));
        if (item.result.id == chosen_) list_->setCurrentItem(row);
    }
}

void ResultsView::render() {
    refresh_->setText(q(m::kRefresh));
    // The list side.
    QString listSentence;
    if (!listError_.empty()) listSentence = q(listError_);
    else if (listing_ && items_.empty()) listSentence = q(m::kLoadingRecordings);
    else if (loaded_ && items_.empty()) listSentence = q(m::kNoResults);
    else if (!items_.empty() && !items_.front().offline.empty()) listSentence = q(rm::kOffline) + q(items_.front().offline);
    listStatus_->setText(listSentence);
    listStatus_->setVisible(!listSentence.isEmpty());
    for (int i = 0; i < list_->count() && i < int(items_.size()); ++i) {
        const QString text = rowText(items_[size_t(i)]);
        if (list_->item(i)->text() != text) list_->item(i)->setText(text);
    }
    list_->setVisible(!items_.empty());
    fillDetail();
}

void ResultsView::fillDetail() {
    tabs_->setTabText(0, q(m::kSummary));
    tabs_->setTabText(1, q(m::kTranscript));
    tabs_->setTabText(2, q(m::kCues));
    rename_->setText(q(m::kRenameSpeakers));
    share_->setText(q(m::kShare));

    QStringList sentences;
    if (chosen_.empty()) sentences << q(m::kChooseRecording);
    if (loadingDetail_ && !shown_) sentences << q(m::kLoadingResult);
    if (!detailError_.empty()) sentences << q(detailError_);
    const results::RecordingResult* r = shown_ ? &shown_->result : nullptr;
    if (r) {
        if (!shown_->offline.empty()) sentences << q(rm::kOffline) + q(shown_->offline);
        if (r->state == "failed") sentences << q(rm::kProcessingFailed);
        else if (r->state != "processed") sentences << q(rm::kNotProcessedYet) + " " + q(r->stateSentence());
        else if (r->incomplete) sentences << q(rm::kIncomplete);
    }
    detailStatus_->setText(sentences.join(' '));
    detailStatus_->setVisible(!sentences.isEmpty());

    const bool processed = r && r->state == "processed";
    // The state of one not processed is said by the sentence below.
    headline_->setText(r ? recordingDate(*r) + "  ·  " + lengthOf(*r) + (processed ? "  ·  " + q(r->stateSentence()) : QString())
                         : QString());
    headline_->setVisible(r != nullptr);
    tabs_->setVisible(processed);
    rename_->setVisible(processed);
    share_->setVisible(processed);
    rename_->setEnabled(processed && !r->speakers.empty());
    action_->setText(actionText_);
    action_->setVisible(!actionText_.isEmpty());
    if (!processed) return;
    if (r->summary.empty()) summary_->setPlainText(q(rm::kNoSummary));
    else summary_->setMarkdown(q(r->summary));
    if (r->transcript.empty()) transcript_->setPlainText(q(m::kNoTranscript));
    else transcript_->setHtml(transcriptHtml(*r));
    if (r->cues.empty()) cues_->setPlainText(q(m::kNoCues));
    else cues_->setHtml(cuesHtml(*r));
}

void ResultsView::setAction(const QString& sentence) {
    actionText_ = sentence;
    render();
}

void ResultsView::share() {
    if (!shown_) return;
    const std::string id = shown_->result.id;
    share_->setEnabled(false);
    setAction(q(m::kSharing));
    QPointer<ResultsView> self(this);
    backend_.shareRecording(id, [self, id](Expected<SharedLink, std::string> link) {
        if (!self) return;
        self->share_->setEnabled(true);
        if (id != self->chosen_) return;
        if (!link) return self->setAction(q(link.error()));
        self->setAction((link->copied ? q(m::kLinkCopied) : q(m::kLinkNotCopied)) + q(link->url));
    });
}

void ResultsView::openSpeakersDialog() {
    if (!shown_ || shown_->result.speakers.empty()) return;
    delete dialog_;
    dialog_ = new QDialog(this);
    dialog_->setObjectName("speakersDialog");
    dialog_->setWindowTitle(q(m::kRenameTitle));
    dialog_->setWindowModality(Qt::WindowModal);
    auto* layout = new QVBoxLayout(dialog_);
    auto* intro = new QLabel(q(m::kRenameIntro), dialog_);
    intro->setWordWrap(true);
    layout->addWidget(intro);
    auto* form = new QFormLayout();
    const auto result = shown_->result;
    std::vector<std::pair<int, QLineEdit*>> fields;
    for (const auto& speaker : result.speakers) {
        auto* field = new QLineEdit(q(speaker.name.value_or("")), dialog_);
        field->setObjectName(QString("speakerName%1").arg(speaker.index));
        field->setPlaceholderText(q(rm::kSpeaker) + QString::number(speaker.index));
        QString label = q(rm::kSpeaker) + QString::number(speaker.index);
        if (speaker.side == "microphone") label += " (" + q(rm::kYouSide) + ")";
        else if (speaker.side == "system") label += " (" + q(rm::kOthersSide) + ")";
        form->addRow(label, field);
        fields.emplace_back(speaker.index, field);
    }
    layout->addLayout(form);
    auto* buttons = new QDialogButtonBox(dialog_);
    auto* save = buttons->addButton(q(m::kSave), QDialogButtonBox::AcceptRole);
    save->setObjectName("saveSpeakers");
    buttons->addButton(q(m::kCancel), QDialogButtonBox::RejectRole)->setObjectName("cancelSpeakers");
    layout->addWidget(buttons);
    connect(buttons, &QDialogButtonBox::rejected, dialog_, &QDialog::reject);
    connect(buttons, &QDialogButtonBox::accepted, dialog_, [this, result, fields] {
        std::map<int, std::string> names;
        for (const auto& [index, field] : fields) {
            const std::string wanted = field->text().trimmed().toStdString();
            std::string before;
            for (const auto& s : result.speakers)
                if (s.index == index) before = s.name.value_or("");
            if (wanted != before) names[index] = wanted;
        }
        dialog_->accept();
        if (!names.empty()) rename(names);
    });
    dialog_->open();
}

void ResultsView::rename(const std::map<int, std::string>& names) {
    if (!shown_) return;
    const std::string id = shown_->result.id;
    rename_->setEnabled(false);
    setAction(q(m::kRenaming));
    QPointer<ResultsView> self(this);
    backend_.renameSpeakers(id, names, [self, id](Expected<results::RecordingResult, std::string> renamed) {
        if (!self) return;
        if (id != self->chosen_ || !self->shown_) return self->render();
        if (!renamed) return self->setAction(q(renamed.error()));
        self->shown_->result = *renamed;
        self->setAction(q(m::kRenamed));
    });
}

}  // namespace vell::tray
