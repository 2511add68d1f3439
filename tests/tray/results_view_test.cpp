// The results page over a backend whose answers the test gives (and withholds): the list
// with each recording's state, the chosen one's summary, transcript and cues, renaming its
// speakers and sharing it; loading and failures as sentences; answers that come after the
// view moved on change nothing; both languages.
#include <gtest/gtest.h>

#include <QDialog>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QPushButton>
#include <QTabWidget>
#include <QTextBrowser>
#include <deque>

#include "tests/tray/tray_rig.h"
#include "tray/main_window.h"
#include "tray/results_view.h"
#include "tray/still_backend.h"

namespace vell::tray {
namespace {

using test::child;

// Holds every request until the test answers it.
class HeldBackend final : public StillBackend {
public:
    void listRecordings(Answer<std::vector<ResultItem>> done) override { lists.push_back(std::move(done)); }
    void recordingDetail(const std::string& id, Answer<ResultItem> done) override { details.push_back({id, std::move(done)}); }
    void renameSpeakers(const std::string& id, const std::map<int, std::string>& names,
                        Answer<results::RecordingResult> done) override {
        renames.push_back({id, names, std::move(done)});
    }
    void shareRecording(const std::string& id, Answer<SharedLink> done) override { shares.push_back({id, std::move(done)}); }

    std::deque<Answer<std::vector<ResultItem>>> lists;
    std::deque<std::pair<std::string, Answer<ResultItem>>> details;
    struct Rename {
        std::string id;
        std::map<int, std::string> names;
        Answer<results::RecordingResult> done;
    };
    std::deque<Rename> renames;
    std::deque<std::pair<std::string, Answer<SharedLink>>> shares;
};

results::RecordingResult processed() {
    results::RecordingResult r;
    r.id = "rec-1";
    r.filename = "vell_rec_1.m4a";
    r.createdAt = 1'700'000'000'000;
    r.durationMs = 95'000;
    r.state = "processed";
    r.summary = "## Key points\n\n- The budget is **ten thousand**.\n- Launch on Thursday.\n";
    r.speakers = {{1, "microphone", std::string("Ana"), 40'000}, {2, "system", std::nullopt, 30'000}};
    r.transcript = {{1, 5'000, 9'000, "The budget is ten thousand."}, {2, 65'000, 70'000, "What is the launch date?"}};
    live::Tile talk;
    talk.id = "talk-time";
    talk.kind = "talkTime";
    talk.weight = 0.3;
    talk.data = {{"shares", {{"1", 57}, {"2", 43}}}};
    live::Tile questions;
    questions.id = "questions";
    questions.kind = "questions";
    questions.weight = 0.9;
    questions.data = {{"count", 1}};
    r.cues = {talk, questions};
    return r;
}

results::RecordingResult inState(const std::string& id, const std::string& state) {
    results::RecordingResult r;
    r.id = id;
    r.createdAt = 1'700'000'100'000;
    r.durationMs = 30'000;
    r.state = state;
    return r;
}

std::string text(QWidget* parent, const char* name) { return child<QLabel>(parent, name)->text().toStdString(); }
std::string plain(QWidget* parent, const char* name) { return child<QTextBrowser>(parent, name)->toPlainText().toStdString(); }

QListWidgetItem* row(QWidget* view, const std::string& id) {
    auto* list = child<QListWidget>(view, "resultsList");
    for (int i = 0; i < list->count(); ++i)
        if (list->item(i)->data(Qt::UserRole).toString().toStdString() == id) return list->item(i);
    return nullptr;
}

struct ResultsViewTest : ::testing::Test {
    void SetUp() override { setInterfaceLanguage(Language::English); }
    void TearDown() override { setInterfaceLanguage(Language::English); }

    // The main window's results page, shown: it asks for the list.
    void open() {
        window = std::make_unique<MainWindow>(backend);
        window->show();
        window->showPage("results");
        view = &window->results();
    }
    void choose(const std::string& id) {
        auto* item = row(view, id);
        ASSERT_NE(item, nullptr) << id;
        child<QListWidget>(view, "resultsList")->setCurrentItem(item);
    }

    HeldBackend backend;
    std::unique_ptr<MainWindow> window;
    ResultsView* view = nullptr;
};

TEST_F(ResultsViewTest, ShowsTheListAndTheChosenRecordingsSummaryTranscriptAndCues) {
    open();
    ASSERT_EQ(backend.lists.size(), 1u) << "showing the page asks for the list";
    EXPECT_EQ(text(view, "resultsStatus"), "Asking the service for your recordings…");
    backend.lists.front()({std::vector<ResultItem>{{processed(), ""}, {inState("rec-2", "processing"), ""}, {inState("rec-3", "failed"), ""}}});
    backend.lists.pop_front();
    EXPECT_TRUE(child<QLabel>(view, "resultsStatus")->isHidden());
    EXPECT_TRUE(row(view, "rec-1")->text().endsWith("1:35  ·  Processed."));
    // Found by what was said: the summary's first line of text, not its heading, not the date.
    EXPECT_TRUE(row(view, "rec-1")->text().startsWith("The budget is ten thousand.\n")) << row(view, "rec-1")->text().toStdString();
    EXPECT_TRUE(row(view, "rec-2")->text().endsWith("0:30  ·  Being processed…"));
    EXPECT_EQ(text(view, "detailStatus"), "Choose a recording to see its summary, transcript and cues.");

    choose("rec-1");
    ASSERT_EQ(backend.details.size(), 1u);
    EXPECT_EQ(text(view, "detailStatus"), "Loading this recording's results…");
    backend.details.front().second(ResultItem{processed(), ""});
    backend.details.pop_front();
    EXPECT_TRUE(child<QLabel>(view, "detailStatus")->isHidden());
    EXPECT_EQ(view->shownID(), "rec-1");
    // The summary is rendered, not shown as Markdown source.
    const std::string summary = plain(view, "summaryText");
    EXPECT_NE(summary.find("Key points"), std::string::npos) << summary;
    EXPECT_NE(summary.find("The budget is ten thousand."), std::string::npos) << summary;
    EXPECT_EQ(summary.find("##"), std::string::npos) << summary;
    EXPECT_EQ(summary.find("**"), std::string::npos) << summary;
    EXPECT_EQ(plain(view, "transcriptText"), "[00:05] Ana: The budget is ten thousand.\n[01:05] Speaker 2: What is the launch date?");
    EXPECT_EQ(plain(view, "cuesText"),
              "Questions asked\n1 question(s) asked.\nTalk time\nShare of the talking: Speaker 1 57%, Speaker 2 43%.");

    // One that is not processed yet, or failed, says so instead of empty pages.
    choose("rec-2");
    backend.details.front().second(ResultItem{inState("rec-2", "processing"), ""});
    backend.details.pop_front();
    EXPECT_EQ(text(view, "detailStatus"), "This recording has not been processed yet. Being processed…");
    EXPECT_TRUE(child<QTabWidget>(view, "detailTabs")->isHidden());
    choose("rec-3");
    backend.details.front().second(ResultItem{inState("rec-3", "failed"), ""});
    backend.details.pop_front();
    EXPECT_EQ(text(view, "detailStatus"), "The service could not process this recording. The recording itself is safe.");
    EXPECT_TRUE(child<QPushButton>(view, "shareButton")->isHidden());
}

TEST_F(ResultsViewTest, FailuresAndOfflineCopiesAreSentencesAndLateAnswersAreDropped) {
    open();
    backend.lists.front()(unexpected(std::string("The service cannot be reached. Check your connection.")));
    backend.lists.pop_front();
    EXPECT_EQ(text(view, "resultsStatus"), "The service cannot be reached. Check your connection.");
    EXPECT_FALSE(child<QLabel>(view, "resultsStatus")->isHidden());

    QTest::mouseClick(child<QPushButton>(view, "refreshResults"), Qt::LeftButton);
    ASSERT_EQ(backend.lists.size(), 1u);
    auto offline = processed();
    backend.lists.front()({std::vector<ResultItem>{{offline, "The service cannot be reached."}, {inState("rec-2", "processed"), ""}}});
    backend.lists.pop_front();
    EXPECT_EQ(text(view, "resultsStatus"), "Showing the copy kept on this computer: The service cannot be reached.");
    EXPECT_TRUE(row(view, "rec-1")->text().endsWith("Processed. · copy on this computer"));

    // rec-1 chosen, then rec-2 before rec-1's answer came: rec-1's late answer is dropped.
    choose("rec-1");
    choose("rec-2");
    ASSERT_EQ(backend.details.size(), 2u);
    backend.details.back().second(ResultItem{inState("rec-2", "processed"), ""});
    backend.details.front().second(ResultItem{processed(), ""});
    backend.details.clear();
    EXPECT_EQ(view->shownID(), "rec-2");
    EXPECT_EQ(plain(view, "summaryText"), "Nothing was recognised in this recording, so there is no summary.");
    EXPECT_EQ(plain(view, "transcriptText"), "Nothing was recognised, so there is no transcript.");
    EXPECT_FALSE(child<QPushButton>(view, "renameSpeakersButton")->isEnabled()) << "no speakers to name";

    // A detail that cannot be had: the sentence, with the pane not left blank.
    choose("rec-1");
    backend.details.front().second(unexpected(std::string("The service sent results that could not be read.")));
    backend.details.pop_front();
    EXPECT_EQ(text(view, "detailStatus"), "The service sent results that could not be read.");
}

TEST_F(ResultsViewTest, RenamesSpeakersAndSharesTheLink) {
    open();
    backend.lists.front()({std::vector<ResultItem>{{processed(), ""}}});
    backend.lists.pop_front();
    choose("rec-1");
    backend.details.front().second(ResultItem{processed(), ""});
    backend.details.pop_front();

    QTest::mouseClick(child<QPushButton>(view, "renameSpeakersButton"), Qt::LeftButton);
    auto* dialog = view->speakersDialog();
    ASSERT_NE(dialog, nullptr);
    EXPECT_EQ(child<QLineEdit>(dialog, "speakerName1")->text(), "Ana");
    EXPECT_EQ(child<QLineEdit>(dialog, "speakerName2")->placeholderText(), "Speaker 2");
    // Only what changed is sent: Ana cleared (back to the default), 2 named.
    child<QLineEdit>(dialog, "speakerName1")->clear();
    QTest::keyClicks(child<QLineEdit>(dialog, "speakerName2"), "Bruno ");
    QTest::mouseClick(child<QPushButton>(dialog, "saveSpeakers"), Qt::LeftButton);
    ASSERT_EQ(backend.renames.size(), 1u);
    EXPECT_EQ(backend.renames.front().id, "rec-1");
    EXPECT_EQ(backend.renames.front().names, (std::map<int, std::string>{{1, ""}, {2, "Bruno"}}));
    EXPECT_EQ(text(view, "actionStatus"), "Renaming…");
    auto renamed = processed();
    renamed.speakers[0].name.reset();
    renamed.speakers[1].name = "Bruno";
    backend.renames.front().done(renamed);
    backend.renames.pop_front();
    EXPECT_EQ(text(view, "actionStatus"), "Speakers renamed.");
    EXPECT_EQ(plain(view, "transcriptText"), "[00:05] Speaker 1: The budget is ten thousand.\n[01:05] Bruno: What is the launch date?");
    // A failed rename keeps the names shown and says why.
    QTest::mouseClick(child<QPushButton>(view, "renameSpeakersButton"), Qt::LeftButton);
    QTest::keyClicks(child<QLineEdit>(view->speakersDialog(), "speakerName1"), "Ana");
    QTest::mouseClick(child<QPushButton>(view->speakersDialog(), "saveSpeakers"), Qt::LeftButton);
    ASSERT_EQ(backend.renames.size(), 1u);
    EXPECT_EQ(backend.renames.front().names, (std::map<int, std::string>{{1, "Ana"}}));
    backend.renames.front().done(unexpected(std::string("The recording is not processed yet.")));
    backend.renames.pop_front();
    EXPECT_EQ(text(view, "actionStatus"), "The recording is not processed yet.");
    EXPECT_EQ(plain(view, "transcriptText").rfind("[00:05] Speaker 1:", 0), 0u);

    auto* share = child<QPushButton>(view, "shareButton");
    QTest::mouseClick(share, Qt::LeftButton);
    ASSERT_EQ(backend.shares.size(), 1u);
    EXPECT_EQ(backend.shares.front().first, "rec-1");
    EXPECT_EQ(text(view, "actionStatus"), "Creating the link…");
    EXPECT_FALSE(share->isEnabled()) << "one link at a time";
    backend.shares.front().second(SharedLink{"http://127.0.0.1:8080/s/abc", true});
    backend.shares.pop_front();
    EXPECT_EQ(text(view, "actionStatus"), "Link copied: http://127.0.0.1:8080/s/abc");
    EXPECT_TRUE(share->isEnabled());
    QTest::mouseClick(share, Qt::LeftButton);
    backend.shares.front().second(SharedLink{"http://127.0.0.1:8080/s/abc", false});
    backend.shares.pop_front();
    EXPECT_EQ(text(view, "actionStatus"), "The link could not be copied; here it is: http://127.0.0.1:8080/s/abc");
}

TEST_F(ResultsViewTest, SpeaksSpanish) {
    setInterfaceLanguage(Language::Spanish);
    open();
    backend.lists.front()({std::vector<ResultItem>{{processed(), ""}, {inState("rec-2", "queued"), ""}}});
    backend.lists.pop_front();
    EXPECT_TRUE(row(view, "rec-1")->text().endsWith("1:35  ·  Procesada."));
    EXPECT_TRUE(row(view, "rec-2")->text().endsWith("Esperando para procesarse."));
    choose("rec-1");
    backend.details.front().second(ResultItem{processed(), ""});
    backend.details.pop_front();
    auto* tabs = child<QTabWidget>(view, "detailTabs");
    EXPECT_EQ(tabs->tabText(0), "Resumen");
    EXPECT_EQ(tabs->tabText(1), "Transcripción");
    EXPECT_EQ(tabs->tabText(2), "Consejos");
    EXPECT_EQ(plain(view, "transcriptText"), "[00:05] Ana: The budget is ten thousand.\n[01:05] Participante 2: What is the launch date?");
    EXPECT_EQ(plain(view, "cuesText").rfind("Preguntas hechas\n1 pregunta(s) hecha(s).", 0), 0u);
    EXPECT_EQ(child<QPushButton>(view, "shareButton")->text(), "Compartir");
    auto* main = child<QTabWidget>(window.get(), "mainTabs");
    EXPECT_EQ(main->tabText(main->indexOf(view)), "Resultados");
    QTest::mouseClick(child<QPushButton>(view, "renameSpeakersButton"), Qt::LeftButton);
    EXPECT_EQ(view->speakersDialog()->windowTitle(), "Renombrar participantes");
    EXPECT_EQ(child<QLineEdit>(view->speakersDialog(), "speakerName2")->placeholderText(), "Participante 2");
    view->speakersDialog()->reject();
    // Back in English, what is shown follows without asking again.
    setInterfaceLanguage(Language::English);
    emit languageSignal().changed();
    EXPECT_EQ(tabs->tabText(0), "Summary");
    EXPECT_TRUE(row(view, "rec-1")->text().endsWith("Processed."));
    EXPECT_TRUE(backend.lists.empty() && backend.details.empty());
}

}  // namespace
}  // namespace vell::tray
