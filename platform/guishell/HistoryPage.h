// SPDX-License-Identifier: GPL-2.0-or-later
// History page: past scan jobs; an opened job shows its findings, which can be quarantined, deleted
// or ignored one at a time or all at once.
#pragma once

#include <cstdint>

#include "StorePage.h"

class QPushButton;
class QTreeWidget;

namespace kuv {
namespace shell {

class KUV_EXPORT HistoryPage : public StorePage {
    Q_OBJECT
public:
    explicit HistoryPage(QWidget* parent = nullptr);

    void refresh() override;
    int jobCount() const;
    // Shows the findings of job id (a history row id); false when there is no such job.
    bool openJob(int64_t id);
    int64_t openedJob() const { return m_opened; }
    int findingCount() const;
    // Acts on the selected findings (all when allFindings); the buttons ask before deleting.
    int quarantineSelected(bool allFindings);
    int deleteSelected(bool allFindings);
    int ignoreSelected(bool allFindings);

signals:
    // A finding was handled; the quarantine and the tray follow.
    void findingsHandled();

private:
    enum Act { ACT_QUARANTINE, ACT_DELETE, ACT_IGNORE };
    int act(Act what, bool allFindings);
    void retranslate() override;
    void languageChanged() override;
    void updateButtons();

    QTreeWidget* m_jobs;
    QLabel* m_jobTitle;
    QTreeWidget* m_findings;
    QPushButton* m_quarantine;
    QPushButton* m_delete;
    QPushButton* m_ignore;
    QPushButton* m_quarantineAll;
    int64_t m_opened = 0;
    QString m_openedJobName;
};

} // namespace shell
} // namespace kuv
