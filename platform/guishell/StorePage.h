// SPDX-License-Identifier: GPL-2.0-or-later
// Base of the pages on the user's store (quarantine, history): heading, hint, the page's own content,
// a message line; retranslate() on every language change and refresh() whenever the page is shown.
#pragma once

#include "KuvExport.h"

#include <QWidget>

class QLabel;
class QVBoxLayout;

namespace kuv {
namespace shell {

class KUV_EXPORT StorePage : public QWidget {
public:
    // Reads the page's entries afresh from the store.
    virtual void refresh() = 0;
    // The last outcome or problem shown under the page.
    QString message() const;

protected:
    // Heading and hint come first in layout(); the derived page adds its content, then message().
    StorePage(const QString& name, QWidget* parent);

    virtual void retranslate() = 0;
    virtual void languageChanged() { retranslate(); }
    void changeEvent(QEvent* event) override;
    void showEvent(QShowEvent* event) override;

    QVBoxLayout* m_layout;
    QLabel* m_title;
    QLabel* m_hint;
    QLabel* m_message;
};

} // namespace shell
} // namespace kuv
