// The download sequence of the download dialog.
#include "download/dlgdownload.h"

#include "app/constants.h"

#include <QTimer>

void dlgDownLoad::runSequence()
{
    m_restartCount = 10;
    m_stop = false;
    m_updateApp = false;
    m_loadState = 1;
    m_platformCode.clear();
    m_variantName.clear();
    m_variantDir.clear();
    m_panelProduct = defaultProduct;
    m_packageProduct = defaultProduct;
    // In resume mode the start-up code has taken the buttons away already.
    if (!m_resumeMode)
        setBntEnable(false, true, false);
    repaint();
    if (m_startTimer->isActive())
        m_startTimer->stop();
    if (m_restartTimer->isActive())
        m_restartTimer->stop();

    updateFinish(true);
}
