// Quarantine page: the user's quarantined files, with restore and delete.
#pragma once

#include <string>
#include <vector>

#include <QStringList>
#include <QWidget>

class QLabel;
class QPushButton;
class QTreeWidget;

namespace kuv {
namespace shell {

class QuarantinePage : public QWidget {
    Q_OBJECT
public:
    explicit QuarantinePage(QWidget* parent = nullptr);

    // Reads the entries afresh from the store.
    void refresh();
    int entryCount() const;
    // Selects the entries with these ids (all when empty) in the list.
    void select(const QStringList& ids = QStringList());
    // Restores the selected entries; beside: when the original path is taken, next to it under a
    // new name, else such an entry is left in the quarantine. Returns how many came back.
    int restoreSelected(bool beside);
    // Deletes the selected entries for good (the buttons ask first). Returns how many went.
    int deleteSelected();
    QString message() const;

protected:
    void changeEvent(QEvent* event) override;
    void showEvent(QShowEvent* event) override;

private:
    void retranslate();
    void onRestore();
    void onDelete();
    QStringList selectedIds() const;
    void setMessage(const QString& text, bool problem);

    QLabel* m_title;
    QLabel* m_hint;
    QTreeWidget* m_list;
    QPushButton* m_restore;
    QPushButton* m_delete;
    QPushButton* m_refresh;
    QLabel* m_message;
    QStringList m_notices;
};

} // namespace shell
} // namespace kuv
