#include "reply.h"

namespace Zephyrtide {

Reply::Reply(const QString &requestName, const QVariantMap &requestParams, QObject *parent)
    : QObject(parent)
    , m_requestName(requestName)
    , m_requestParams(requestParams)
{
    // Connected first and directly, so every other receiver of finished()
    // already sees isFinished() == true, whichever thread emits it.
    connect(this, &Reply::finished, this, [this] { m_finished = true; }, Qt::DirectConnection);
}

Reply::~Reply() = default;

Error::ErrorCode Reply::status() const
{
    return static_cast<Error::ErrorCode>(m_status.load());
}

void Reply::setStatus(Error::ErrorCode status)
{
    m_status = status;
}

bool Reply::isFinished() const
{
    return m_finished;
}

QString Reply::requestName() const
{
    return m_requestName;
}

QVariantMap Reply::requestParams() const
{
    return m_requestParams;
}

} // namespace Zephyrtide
