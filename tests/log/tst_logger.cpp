// The result report: the status marker replaced in place, lines appended in
// order, a fresh file per run, and silence without a file.
#include "log/clogger.h"
#include "testenv.h"

#include <QtTest>

using testenv::readFile;
using testenv::writeFile;

namespace {

// The three markers have the same UTF-8 length, so a later one covers the first.
const QString kStarted = QStringLiteral("[开始]\n");
const QString kSucceeded = QStringLiteral("[成功]\n");
const QString kFailed = QStringLiteral("[失败]\n");

CLogger* logger()
{
    return CLogger::GetInstance();
}

} // namespace

class TestLogger : public QObject
{
    Q_OBJECT

private slots:
    void cleanup() { logger()->close(); }
    void markerReplacedInPlace_data();
    void markerReplacedInPlace();
    void unopenableReportIsDropped();
    void callsAfterCloseDoNothing();

private:
    QTemporaryDir m_dir;
};

void TestLogger::markerReplacedInPlace_data()
{
    QTest::addColumn<QString>("finalMarker"); // "" for a run cut off before its end
    QTest::newRow("succeeded") << kSucceeded;
    QTest::newRow("failed") << kFailed;
    QTest::newRow("cut off") << QString();
}

void TestLogger::markerReplacedInPlace()
{
    QFETCH(QString, finalMarker);
    // In a directory that does not exist yet, over an earlier run's report.
    const QString path = m_dir.filePath(QStringLiteral("stick/%1/pro_update_result.log").arg(QTest::currentDataTag()));
    QVERIFY(writeFile(path, "[失败]\nan earlier run with many lines\nand more\n"));
    QVERIFY(logger()->open(path));
    QVERIFY(logger()->isOpen());
    QCOMPARE(readFile(path), QByteArray());

    logger()->writeReport(kStarted);
    QByteArray lines;
    for (const QString& line : {QStringLiteral("正在校验工程数据的完整性...\n"), QStringLiteral("x\n"),
                                QStringLiteral("工程数据完整性校验通过!\n")}) {
        logger()->write(line);
        lines += line.toUtf8();
    }
    QCOMPARE(readFile(path), kStarted.toUtf8() + lines);
    if (finalMarker.isEmpty())
        return;

    logger()->writeReport(finalMarker);
    // Lines written after the marker still go to the end.
    logger()->write(QStringLiteral("升级工程结束!\n"));
    lines += QStringLiteral("升级工程结束!\n").toUtf8();
    logger()->close();
    QVERIFY(!logger()->isOpen());
    QCOMPARE(readFile(path), finalMarker.toUtf8() + lines);
}

void TestLogger::unopenableReportIsDropped()
{
    const QString blocker = m_dir.filePath(QStringLiteral("plainfile"));
    QVERIFY(writeFile(blocker, "x"));
    const QString path = blocker + QStringLiteral("/sub/report.log");
    QVERIFY(!logger()->open(path));
    QVERIFY(!logger()->isOpen());
    logger()->writeReport(kStarted);
    logger()->write(QStringLiteral("line\n"));
    QVERIFY(!QFile::exists(path));
    QCOMPARE(readFile(blocker), QByteArray("x"));
}

void TestLogger::callsAfterCloseDoNothing()
{
    const QString path = m_dir.filePath(QStringLiteral("closed.log"));
    QVERIFY(logger()->open(path));
    logger()->writeReport(kStarted);
    logger()->close();
    logger()->close();
    logger()->write(QStringLiteral("late line\n"));
    logger()->writeReport(kSucceeded);
    QVERIFY(!logger()->isOpen());
    QCOMPARE(readFile(path), kStarted.toUtf8());
}

QTEST_GUILESS_MAIN(TestLogger)
#include "tst_logger.moc"
