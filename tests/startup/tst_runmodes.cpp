#include "app/runmodes.h"
#include "frame/no_menu_decoration.h"
#include "text/multilingualmanager.h"

#include <QApplication>
#include <QDialog>
#include <QMainWindow>
#include <QMenu>
#include <QMessageBox>
#include <QMouseEvent>
#include <QPushButton>
#include <QTimer>
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
    void decorationStripsAgainWhenShown();
    void titleBarDoubleClickReachesWindow();
    void maximisedStateIsUndone();

private:
    no_menu_decoration m_decoration;
};

void tst_runmodes::initTestCase()
{
    initKavoResources();
    QVERIFY(MultilingualManager::GetInstance()->loadMultilingualFile(QString(), kBuiltinLanguageFile));
    qApp->installEventFilter(&m_decoration);
}

void tst_runmodes::cleanup()
{
    QVERIFY(QApplication::topLevelWidgets().isEmpty());
}

void tst_runmodes::resumeFailedBox()
{
    QString title;
    QString text;
    QStringList captions;
    QMessageBox::Icon icon = QMessageBox::NoIcon;
    Qt::WindowFlags flags;
    bool hadParent = true;
    // The box is modal and blocks; answer it from inside its own event loop.
    QTimer answer;
    answer.setInterval(10);
    connect(&answer, &QTimer::timeout, [&] {
        auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
        if (box == nullptr)
            return;
        answer.stop();
        title = box->windowTitle();
        text = box->text();
        icon = box->icon();
        flags = box->windowFlags();
        hadParent = box->parentWidget() != nullptr;
        for (QAbstractButton* button : box->buttons())
            captions << button->text();
        box->button(QMessageBox::Ok)->click();
    });
    answer.start();

    QCOMPARE(runmodes::runResumeFailed(37), 37);

    QCOMPARE(title, QStringLiteral("提示"));
    QCOMPARE(text, QStringLiteral("更新运行环境失败，请检查：\n1、U盘是否松动；\n2、升级包是否正确；\n3、确认后重试。"));
    QCOMPARE(captions, QStringList{QStringLiteral("确认")});
    QCOMPARE(icon, QMessageBox::Information);
    QVERIFY(!hadParent);
    QVERIFY(flags.testFlag(Qt::WindowStaysOnTopHint));
    QVERIFY(!flags.testFlag(Qt::WindowContextHelpButtonHint));
    QVERIFY(!flags.testFlag(Qt::WindowSystemMenuHint));
}

void tst_runmodes::decorationStripsWindows_data()
{
    QTest::addColumn<QString>("kind");
    QTest::newRow("plain window") << "widget";
    QTest::newRow("dialog") << "dialog";
    QTest::newRow("frameless main window") << "frameless";
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
    else if (kind == "frameless")
        window = std::make_unique<QMainWindow>(nullptr, Qt::FramelessWindowHint);
    else
        window = std::make_unique<QMessageBox>(QMessageBox::Information, "t", "x", QMessageBox::Ok);

    window->show();
    QVERIFY(QTest::qWaitForWindowExposed(window.get()));

    QCOMPARE(window->windowFlags() & kStrippedHints, Qt::WindowFlags());
    QVERIFY(window->windowHandle() != nullptr);
    QCOMPARE(window->windowHandle()->flags() & kStrippedHints, Qt::WindowFlags());
    QVERIFY(window->isVisible());
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

void tst_runmodes::decorationStripsAgainWhenShown()
{
    QDialog dialog;
    dialog.show();
    QVERIFY(QTest::qWaitForWindowExposed(&dialog));
    dialog.setWindowFlags(dialog.windowFlags() | kStrippedHints);
    dialog.show();
    QVERIFY(QTest::qWaitForWindowExposed(&dialog));
    QCOMPARE(dialog.windowFlags() & kStrippedHints, Qt::WindowFlags());
    QCOMPARE(dialog.windowHandle()->flags() & kStrippedHints, Qt::WindowFlags());
}

void tst_runmodes::titleBarDoubleClickReachesWindow()
{
    TitleBarWindow window;
    window.resize(200, 100);
    window.show();
    QVERIFY(QTest::qWaitForWindowExposed(&window));

    QMouseEvent click(QEvent::NonClientAreaMouseButtonDblClick, QPointF(5, -5), Qt::LeftButton, Qt::LeftButton,
                      Qt::NoModifier);
    QApplication::sendEvent(&window, &click);
    QCoreApplication::processEvents();

    QCOMPARE(window.doubleClicks, 1);
    QVERIFY(!window.isMaximized());
    QCOMPARE(window.size(), QSize(200, 100));
}

void tst_runmodes::maximisedStateIsUndone()
{
    QDialog dialog;
    dialog.resize(200, 100);
    dialog.show();
    QVERIFY(QTest::qWaitForWindowExposed(&dialog));

    dialog.setWindowState(Qt::WindowMaximized);
    QVERIFY(dialog.isMaximized());
    QTRY_VERIFY(!dialog.isMaximized());
    QTRY_COMPARE(dialog.windowHandle()->windowState(), Qt::WindowNoState);
}

QTEST_MAIN(tst_runmodes)
#include "tst_runmodes.moc"
