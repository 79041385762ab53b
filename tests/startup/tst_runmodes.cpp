#include "app/runmodes.h"
#include "frame/no_menu_decoration.h"

#include "boxanswerer.h"
#include "testenv.h"

#include <QApplication>
#include <QDialog>
#include <QMenu>
#include <QMessageBox>
#include <QMouseEvent>
#include <QWindow>
#include <QtTest>

#include <memory>

namespace {

// A top-level window that counts title-bar double clicks.
class TitleBarWindow : public QWidget
{
public:
    int doubleClicks = 0;

protected:
    bool event(QEvent* event) override
    {
        if (event->type() == QEvent::NonClientAreaMouseButtonDblClick)
            ++doubleClicks;
        return QWidget::event(event);
    }
};

constexpr Qt::WindowFlags kStrippedHints = Qt::WindowSystemMenuHint | Qt::WindowMaximizeButtonHint;

} // namespace

class tst_runmodes : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanup();
    void resumeFailedBox();
    void decorationStripsWindows_data();
    void decorationStripsWindows();
    void decorationLeavesOtherWidgets();
    void titleBarAndMaximising();

private:
    no_menu_decoration m_decoration;
};

void tst_runmodes::initTestCase()
{
    QVERIFY(testenv::loadBuiltinTexts());
    qApp->installEventFilter(&m_decoration);
}

void tst_runmodes::cleanup()
{
    QVERIFY(QApplication::topLevelWidgets().isEmpty());
}

// The runtime updater reported a failure: the operator is told, and the
// process ends with the status it has always had on this path.
void tst_runmodes::resumeFailedBox()
{
    testenv::BoxAnswerer answerer;
    QCOMPARE(runmodes::runResumeFailed(37), 37);

    QCOMPARE(answerer.seen().size(), 1);
    const testenv::SeenBox& box = answerer.seen().first();
    QCOMPARE(box.title, QStringLiteral("提示"));
    QCOMPARE(box.text, QStringLiteral("更新运行环境失败，请检查：\n1、U盘是否松动；\n2、升级包是否正确；\n3、确认后重试。"));
    QCOMPARE(box.buttons, QStringList{QStringLiteral("确认")});
    QCOMPARE(box.icon, QMessageBox::Information);
    QCOMPARE(box.parent, nullptr);
    QVERIFY(box.flags.testFlag(Qt::WindowStaysOnTopHint));
    QVERIFY(!box.flags.testFlag(Qt::WindowContextHelpButtonHint));
    QVERIFY(!box.flags.testFlag(Qt::WindowSystemMenuHint));
}

void tst_runmodes::decorationStripsWindows_data()
{
    QTest::addColumn<QString>("kind");
    QTest::newRow("plain window") << "widget";
    QTest::newRow("dialog") << "dialog";
    QTest::newRow("message box") << "messagebox";
}

void tst_runmodes::decorationStripsWindows()
{
    QFETCH(QString, kind);
    std::unique_ptr<QWidget> window;
    if (kind == "widget")
        window = std::make_unique<QWidget>();
    else if (kind == "dialog")
        window = std::make_unique<QDialog>();
    else
        window = std::make_unique<QMessageBox>(QMessageBox::Information, "t", "x", QMessageBox::Ok);

    // Stripped when first shown, and again when shown after the hints came back.
    for (int shown = 0; shown < 2; ++shown) {
        if (shown > 0)
            window->setWindowFlags(window->windowFlags() | kStrippedHints);
        window->show();
        QVERIFY(QTest::qWaitForWindowExposed(window.get()));
        QCOMPARE(window->windowFlags() & kStrippedHints, Qt::WindowFlags());
        QVERIFY(window->windowHandle() != nullptr);
        QCOMPARE(window->windowHandle()->flags() & kStrippedHints, Qt::WindowFlags());
        QVERIFY(window->isVisible());
    }
}

void tst_runmodes::decorationLeavesOtherWidgets()
{
    QWidget window;
    auto* child = new QWidget(&window);
    child->setWindowFlags(child->windowFlags() | Qt::WindowSystemMenuHint);
    window.show();
    QVERIFY(QTest::qWaitForWindowExposed(&window));
    QVERIFY(child->windowFlags().testFlag(Qt::WindowSystemMenuHint));

    QMenu menu;
    const Qt::WindowFlags menuFlags = menu.windowFlags();
    menu.popup(QPoint(10, 10));
    QTRY_VERIFY(menu.isVisible());
    QCOMPARE(menu.windowFlags(), menuFlags);
    menu.close();
}

// The title-bar double click still reaches the window, but a maximised state
// that a window manager applies is undone.
void tst_runmodes::titleBarAndMaximising()
{
    TitleBarWindow window;
    window.resize(200, 100);
    window.show();
    QVERIFY(QTest::qWaitForWindowExposed(&window));

    QMouseEvent click(QEvent::NonClientAreaMouseButtonDblClick, QPointF(5, -5), Qt::LeftButton, Qt::LeftButton,
                      Qt::NoModifier);
    QApplication::sendEvent(&window, &click);
    QCOMPARE(window.doubleClicks, 1);
    QCOMPARE(window.size(), QSize(200, 100));

    window.setWindowState(Qt::WindowMaximized);
    QVERIFY(window.isMaximized());
    QTRY_VERIFY(!window.isMaximized());
    QTRY_COMPARE(window.windowHandle()->windowState(), Qt::WindowNoState);
}

QTEST_MAIN(tst_runmodes)
#include "tst_runmodes.moc"
