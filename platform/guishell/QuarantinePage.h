// SPDX-License-Identifier: GPL-2.0-or-later
// Quarantine page: the user's quarantined files, with restore and delete.
#pragma once

#include <string>
#include <vector>

#include <QStringList>

#include "StorePage.h"

class QPushButton;
class QTreeWidget;

namespace kuv {
namespace shell {

class KUV_EXPORT QuarantinePage : public StorePage {
    Q_OBJECT
public:
    explicit QuarantinePage(QWidget* parent = nullptr);

    void refresh() override;
    int entryCount() const;
    // Selects the entries with these ids (all when empty) in the list.
    void select(const QStringList& ids = QStringList());
    // Restores the selected entries; beside: when the original path is taken, next to it under a
    // new name, else such an entry is left in the quarantine. Returns how many came back.
    int restoreSelected(bool beside);
    // Deletes the selected entries for good (the buttons ask first). Returns how many went.
    int deleteSelected();

private:
    void retranslate() override;
    void onRestore();
    void onDelete();
    QStringList selectedIds() const;
    void setMessage(const QString& text, bool problem);

    QTreeWidget* m_list;
    QPushButton* m_restore;
    QPushButton* m_delete;
    QPushButton* m_refresh;
    QStringList m_notices;
};

} // namespace shell
} // namespace kuv
