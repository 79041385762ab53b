// opxpanel: makes a simulated panel for integrators who try the package on a
// PC before they take a stick to the machine.
#include "tools/opxpanel/paneltool.h"

#include <QCoreApplication>

#include <cstdio>

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("opxpanel"));
    QTextStream out(stdout);
    QTextStream err(stderr);
    out.setCodec("UTF-8");
    err.setCodec("UTF-8");
    return opxpanel::run(QCoreApplication::arguments(), out, err);
}
