#pragma once

// A functor queued to another thread's event loop (QMetaObject::invokeMethod with
// Qt::QueuedConnection). Qt orders the call after the posting, and the functor's destruction
// after the call, with locks and atomics inside Qt. Qt is not instrumented, so a build with
// ThreadSanitizer does not see that order: there the wrapper states it, and does nothing else.
// Elsewhere Queued() gives back the functor itself.
//
//   QMetaObject::invokeMethod(receiver, QMCompat::Queued([=] { ... }), Qt::QueuedConnection);

#include <utility>

#if defined(__SANITIZE_THREAD__)
#define QM_THREAD_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define QM_THREAD_SANITIZER 1
#endif
#endif

#ifdef QM_THREAD_SANITIZER
#include <sanitizer/tsan_interface.h>
#endif

namespace QMCompat {

#ifdef QM_THREAD_SANITIZER

template <typename Functor>
class QueuedCall
{
public:
    explicit QueuedCall(Functor functor)
        : m_functor(std::move(functor))
    {
    }
    // Qt moves the functor into its call object last, in the posting thread.
    QueuedCall(QueuedCall&& other)
        : m_functor(std::move(other.m_functor))
    {
        __tsan_release(this);
    }
    QueuedCall(const QueuedCall&) = delete;
    QueuedCall& operator=(const QueuedCall&) = delete;
    QueuedCall& operator=(QueuedCall&&) = delete;
    // Freed by whichever thread drops Qt's last reference: after the call, if it ran.
    ~QueuedCall() { __tsan_acquire(this); }

    void operator()()
    {
        __tsan_acquire(this);
        m_functor();
        __tsan_release(this);
    }

private:
    Functor m_functor;
};

template <typename Functor>
QueuedCall<Functor> Queued(Functor functor)
{
    return QueuedCall<Functor>(std::move(functor));
}

#else

template <typename Functor>
Functor Queued(Functor functor)
{
    return functor;
}

#endif

} // namespace QMCompat
