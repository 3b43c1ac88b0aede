// SPDX-License-Identifier: GPL-2.0-or-later
// The reference for start-up and memory: a bare Qt Widgets program showing one window. It prints "ready"
// once its event loop runs with the window shown, then idles until it is terminated.
#include <unistd.h>

#include <cstring>

#include <QApplication>
#include <QLabel>
#include <QMainWindow>
#include <QTimer>

int main(int argc, char** argv)
{
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) {
            std::puts("usage: kuv_bare_qt\n"
                      "A bare Qt Widgets program: one window with one label. Prints \"ready\" on standard output\n"
                      "once the window is shown and the event loop runs, then idles until terminated.");
            return 0;
        }
    }
    QApplication app(argc, argv);
    QMainWindow window;
    window.setCentralWidget(new QLabel(QStringLiteral("bare Qt")));
    window.resize(400, 300);
    window.show();
    QTimer::singleShot(0, [] { (void)!::write(STDOUT_FILENO, "ready\n", 6); });
    return app.exec();
}
