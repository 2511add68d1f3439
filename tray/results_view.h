#pragma once
// The main window's results page: the account's recordings as the service lists them (or
// the copies kept on this computer when it cannot be reached), each with its date, length
// and processing state; and for the chosen one its summary (Markdown), transcript (speaker
// and time per line) and cues, its speakers to rename and a Share button that copies the
// link. Loading and every failure show as a sentence. Answers that come after the view
// moved on (another recording chosen, the list asked for again) are dropped. GUI thread.
#include <QTimer>
#include <QWidget>
#include <optional>
#include <string>
#include <vector>

#include "tray/backend.h"

class QDialog;
class QLabel;
class QListWidget;
class QPushButton;
class QTabWidget;
class QTextBrowser;

namespace vell::tray {

class ResultsView final : public QWidget {
    Q_OBJECT
public:
    explicit ResultsView(Backend& backend, QWidget* parent = nullptr);
    // Asks for the list again (keeps the chosen recording when it is still there).
    void refresh();
    void render();
    // The recording whose results are shown, if any.
    std::optional<std::string> shownID() const;
    // The speakers' dialog while it is open (tests and screenshots fill it in).
    QDialog* speakersDialog() const { return dialog_; }
    void openSpeakersDialog();

protected:
    void showEvent(QShowEvent* event) override;

private:
    void listed(Expected<std::vector<ResultItem>, std::string> answer);
    void choose(const std::string& id);
    void detailed(const std::string& id, Expected<ResultItem, std::string> answer);
    void fillList();
    void fillDetail();
    void share();
    void rename(const std::map<int, std::string>& names);
    void setAction(const QString& sentence);

    Backend& backend_;
    QLabel* listStatus_;
    QListWidget* list_;
    QPushButton* refresh_;
    QLabel* headline_;
    QLabel* detailStatus_;
    QTabWidget* tabs_;
    QTextBrowser* summary_;
    QTextBrowser* transcript_;
    QTextBrowser* cues_;
    QPushButton* rename_;
    QPushButton* share_;
    QLabel* action_;
    QDialog* dialog_ = nullptr;
    QTimer again_;  // asks again while a recording is still being processed

    bool loaded_ = false, listing_ = false;
    std::string listError_;
    std::vector<ResultItem> items_;
    std::string chosen_;
    bool loadingDetail_ = false;
    std::string detailError_;
    std::optional<ResultItem> shown_;
    QString actionText_;
    int listRun_ = 0, detailRun_ = 0;
};

}  // namespace vell::tray
