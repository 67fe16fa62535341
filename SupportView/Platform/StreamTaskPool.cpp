#include "SupportView/Platform/StreamTaskPool.h"

namespace {

struct ZelStreamTaskPool {
    GstTaskPool parent;
};
struct ZelStreamTaskPoolClass {
    GstTaskPoolClass parent_class;
};

G_DEFINE_TYPE(ZelStreamTaskPool, zel_stream_task_pool, GST_TYPE_TASK_POOL)

struct Job {
    GstTaskPoolFunction function;
    gpointer data;
};

gpointer runJob(gpointer job) {
    Job* owned = static_cast<Job*>(job);
    owned->function(owned->data);
    g_free(owned);
    return nullptr;
}

void preparePool(GstTaskPool*, GError**) {}
void cleanupPool(GstTaskPool*) {}

gpointer pushJob(GstTaskPool*, GstTaskPoolFunction function, gpointer data, GError** error) {
    Job* job = g_new(Job, 1);
    job->function = function;
    job->data = data;
    GThread* thread = g_thread_try_new("VideoStream", runJob, job, error);
    if (thread == nullptr) {
        g_free(job);
    }
    return thread;
}

void joinJob(GstTaskPool*, gpointer id) {
    if (id != nullptr) {
        g_thread_join(static_cast<GThread*>(id));
    }
}

void zel_stream_task_pool_class_init(ZelStreamTaskPoolClass* klass) {
    GstTaskPoolClass* pool = GST_TASK_POOL_CLASS(klass);
    pool->prepare = preparePool;
    pool->cleanup = cleanupPool;
    pool->push = pushJob;
    pool->join = joinJob;
}

void zel_stream_task_pool_init(ZelStreamTaskPool*) {}

}  // namespace

namespace Zel {
namespace Sv {

GstTaskPool* NewStreamTaskPool() {
    return GST_TASK_POOL(g_object_new(zel_stream_task_pool_get_type(), nullptr));
}

}  // namespace Sv
}  // namespace Zel
