// The result report where a download cannot show it: a run cut off before
// its end, a report that cannot be opened, calls after the close. Its
// markers and lines in a whole run are tst_download_e2e's.
#include "log/clogger.h"
#include "testenv.h"

#include <QtTest>

class TestLogger : public QObject
{
    Q_OBJECT

private slots:
    void report_data();
    void report();

private:
    QTemporaryDir m_dir;
};

void TestLogger::report_data()
{
    QTest::addColumn<QString>("path");     // below the temporary directory; "plainfile" is a file
    QTest::addColumn<bool>("closedEarly"); // closed (twice) before the later calls
    QTest::addColumn<QByteArray>("report"); // at the end; a run cut off keeps "[开始]" and its lines
    // A later marker covers the first in place; later lines go to the end.
    QTest::newRow("marker replaced") << "a/b/new.log" << false << QByteArray("[成功]\nline\nlate\n");
    QTest::newRow("calls after the close") << "closed.log" << true << QByteArray("[开始]\nline\n");
    QTest::newRow("cannot be opened") << "plainfile/sub/report.log" << false << QByteArray();
}

void TestLogger::report()
{
    QFETCH(QString, path);
    QFETCH(bool, closedEarly);
    QFETCH(QByteArray, report);
    CLogger* logger = CLogger::GetInstance();
    QVERIFY(testenv::writeFile(m_dir.filePath("plainfile"), "x"));
    const QString file = m_dir.filePath(path);
    QCOMPARE(logger->open(file), !report.isNull());
    QCOMPARE(logger->isOpen(), !report.isNull());
    logger->writeReport(QStringLiteral("[开始]\n"));
    logger->write(QStringLiteral("line\n"));
    QCOMPARE(testenv::readFile(file), report.isNull() ? QByteArray() : QByteArray("[开始]\nline\n"));
    if (closedEarly) {
        logger->close();
        logger->close();
    }
    logger->writeReport(QStringLiteral("[成功]\n"));
    logger->write(QStringLiteral("late\n"));
    logger->close();
    QVERIFY(!logger->isOpen());
    QCOMPARE(testenv::readFile(file), report);
    QCOMPARE(testenv::readFile(m_dir.filePath("plainfile")), QByteArray("x"));
}

QTEST_GUILESS_MAIN(TestLogger)
#include "tst_logger.moc"
