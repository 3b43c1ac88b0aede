// Scan page: the paths of the latest context-menu scan request, their state, progress and counts.
#pragma once

#include <QDateTime>
#include <QStringList>
#include <QWidget>

class QLabel;
class QProgressBar;
class QTreeWidget;

namespace kuv {
namespace shell {

class ScanPage : public QWidget {
    Q_OBJECT
public:
    explicit ScanPage(QWidget* parent = nullptr);

    // Takes a new request; there is no scan engine in this installation, so nothing is scanned.
    void setRequest(const QStringList& paths);
    int requestedCount() const { return m_paths.size(); }

protected:
    void changeEvent(QEvent* event) override;

private:
    void retranslate();
    void fill();

    enum Kind { KIND_FILE, KIND_FOLDER, KIND_MISSING, KIND_OTHER };

    QStringList m_paths;
    QList<Kind> m_kinds;
    QDateTime m_requestTime;
    QLabel* m_title;
    QLabel* m_engineNotice;
    QTreeWidget* m_list;
    QProgressBar* m_progress;
    QLabel* m_counts;
};

} // namespace shell
} // namespace kuv
