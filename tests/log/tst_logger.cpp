// The result report: the status marker replaced in place, lines appended in
// order, a fresh file per run, and silence without a file.
#include "log/clogger.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

namespace {

const QString kStarted = QStringLiteral("[开始]\n");
const QString kSucceeded = QStringLiteral("[成功]\n");
const QString kFailed = QStringLiteral("[失败]\n");

QByteArray readFile(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return QByteArray("<unreadable>");
    return file.readAll();
}

bool writeFile(const QString& path, const QByteArray& data)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return false;
    return file.write(data) == data.size();
}

CLogger* logger()
{
    return CLogger::GetInstance();
}

} // namespace

class TestLogger : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanup();

    void markerReplacedInPlace_data();
    void markerReplacedInPlace();
    void earlierReportIsDeleted();
    void missingDirectoriesAreCreated();
    void unopenableReportIsDropped();
    void callsWithoutFileDoNothing();

private:
    QTemporaryDir m_dir;
};

void TestLogger::initTestCase()
{
    QVERIFY(m_dir.isValid());
    QCOMPARE(kStarted.toUtf8().size(), 9);
    QCOMPARE(kSucceeded.toUtf8().size(), 9);
    QCOMPARE(kFailed.toUtf8().size(), 9);
}

void TestLogger::cleanup()
{
    logger()->close();
}

void TestLogger::markerReplacedInPlace_data()
{
    QTest::addColumn<QString>("finalMarker");
    QTest::addColumn<bool>("finished");

    QTest::newRow("succeeded") << kSucceeded << true;
    QTest::newRow("failed") << kFailed << true;
    QTest::newRow("cut off") << QString() << false;
}

void TestLogger::markerReplacedInPlace()
{
    QFETCH(QString, finalMarker);
    QFETCH(bool, finished);

    const QString path = m_dir.filePath(QStringLiteral("pro_update_result.log"));
    QVERIFY(logger()->open(path));
    QVERIFY(logger()->isOpen());
    QCOMPARE(readFile(path), QByteArray());

    logger()->writeReport(kStarted);
    logger()->write(QStringLiteral("正在校验工程数据的完整性...\n"));
    logger()->write(QStringLiteral("x\n"));
    logger()->write(QStringLiteral("工程数据完整性校验通过!\n"));
    QByteArray lines = QStringLiteral("正在校验工程数据的完整性...\nx\n工程数据完整性校验通过!\n").toUtf8();
    QCOMPARE(readFile(path), kStarted.toUtf8() + lines);

    if (finished) {
        logger()->writeReport(finalMarker);
        // Lines written after the marker still go to the end.
        logger()->write(QStringLiteral("升级工程结束!\n"));
        lines += QStringLiteral("升级工程结束!\n").toUtf8();
        logger()->close();
        QVERIFY(!logger()->isOpen());
        QCOMPARE(readFile(path), finalMarker.toUtf8() + lines);
    } else {
        QCOMPARE(readFile(path), kStarted.toUtf8() + lines);
    }
}

void TestLogger::earlierReportIsDeleted()
{
    const QString path = m_dir.filePath(QStringLiteral("earlier.log"));
    QVERIFY(writeFile(path, QByteArray("[失败]\nan earlier run with many lines\n")));

    QVERIFY(logger()->open(path));
    QCOMPARE(readFile(path), QByteArray());
    logger()->writeReport(kStarted);
    QCOMPARE(readFile(path), kStarted.toUtf8());
}

void TestLogger::missingDirectoriesAreCreated()
{
    const QString path = m_dir.filePath(QStringLiteral("stick/reports/today/pro_update_result.log"));
    QVERIFY(logger()->open(path));
    logger()->writeReport(kStarted);
    logger()->write(QStringLiteral("line\n"));
    QCOMPARE(readFile(path), kStarted.toUtf8() + "line\n");
}

void TestLogger::unopenableReportIsDropped()
{
    const QString blocker = m_dir.filePath(QStringLiteral("plainfile"));
    QVERIFY(writeFile(blocker, QByteArray("x")));

    const QString path = blocker + QStringLiteral("/sub/report.log");
    QVERIFY(!logger()->open(path));
    QVERIFY(!logger()->isOpen());
    logger()->writeReport(kStarted);
    logger()->write(QStringLiteral("line\n"));
    QVERIFY(!QFile::exists(path));
    QCOMPARE(readFile(blocker), QByteArray("x"));
}

void TestLogger::callsWithoutFileDoNothing()
{
    const QString path = m_dir.filePath(QStringLiteral("closed.log"));
    QVERIFY(logger()->open(path));
    logger()->writeReport(kStarted);
    logger()->close();
    logger()->close();

    logger()->write(QStringLiteral("late line\n"));
    logger()->writeReport(kSucceeded);
    logger()->close();
    QVERIFY(!logger()->isOpen());
    QCOMPARE(readFile(path), kStarted.toUtf8());
}

QTEST_GUILESS_MAIN(TestLogger)
#include "tst_logger.moc"
