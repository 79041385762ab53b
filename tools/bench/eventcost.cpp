// What one QCoreApplication::processEvents() call costs with the event
// dispatcher the environment selects (QT_NO_GLIB chooses Qt's own over
// GLib's), with a widget on screen as during a download:
//
//   opxbench_events [CALLS]       (default 1000000)
//
// Prints the dispatcher's class and the nanoseconds per call, best of three.
#include <QAbstractEventDispatcher>
#include <QApplication>
#include <QElapsedTimer>
#include <QLabel>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

int main(int argc, char** argv)
{
    const long calls = argc > 1 ? std::atol(argv[1]) : 1000000;
    if (calls <= 0) {
        std::fprintf(stderr, "usage: %s [CALLS]\n", argv[0]);
        return 2;
    }
    QApplication app(argc, argv);
    QLabel label(QStringLiteral("0"));
    label.show();
    QCoreApplication::processEvents();

    double best = 1e30;
    for (int round = 0; round < 3; ++round) {
        QElapsedTimer timer;
        timer.start();
        for (long i = 0; i < calls; ++i)
            QCoreApplication::processEvents();
        best = std::min(best, static_cast<double>(timer.nsecsElapsed()) / static_cast<double>(calls));
    }
    std::printf("%s %.0f\n", QAbstractEventDispatcher::instance()->metaObject()->className(), best);
    return 0;
}
