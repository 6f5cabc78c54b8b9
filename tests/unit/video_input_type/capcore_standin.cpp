#include "capcore_standin.h"

#include "capcore.h"

namespace standin
{

Outcome system_new;
Outcome wait_for_started;
Outcome input_new;
Outcome set_settings;
std::string error_text;
std::vector<std::string> calls;
int live_objects = 0;

void reset()
{
    system_new = wait_for_started = input_new = set_settings = Outcome::Ok;
    error_text = "stand-in failure";
    calls.clear();
    live_objects = 0;
}

namespace
{
/* TRUE for success; on a scripted failure sets the error as scripted. */
gboolean outcome(Outcome o, GError **error)
{
    if (o == Outcome::Ok)
        return TRUE;
    if (o == Outcome::FailWithError)
        g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_FAILED, error_text.c_str());
    return FALSE;
}
} // namespace

} // namespace standin

using standin::calls;

/* Each object records its own release. */
#define STANDIN_TYPE(Type, prefix, label)                                                          \
    struct _##Type {                                                                               \
        GObject parent_instance;                                                                   \
    };                                                                                             \
    G_DEFINE_TYPE(Type, prefix, G_TYPE_OBJECT)                                                     \
    static void prefix##_finalize(GObject *object)                                                 \
    {                                                                                              \
        calls.push_back("unref " label);                                                           \
        standin::live_objects--;                                                                   \
        G_OBJECT_CLASS(prefix##_parent_class)->finalize(object);                                   \
    }                                                                                              \
    static void prefix##_class_init(Type##Class *klass)                                            \
    {                                                                                              \
        G_OBJECT_CLASS(klass)->finalize = prefix##_finalize;                                       \
    }                                                                                              \
    static void prefix##_init(Type *)                                                              \
    {                                                                                              \
        standin::live_objects++;                                                                   \
    }

STANDIN_TYPE(CapcoreSystem, capcore_system, "system")
STANDIN_TYPE(CapcoreMap, capcore_map, "map")
STANDIN_TYPE(CapcoreInput, capcore_input, "input")

CapcoreSystem *capcore_system_new(GError **error)
{
    calls.push_back("system_new");
    if (!standin::outcome(standin::system_new, error))
        return nullptr;
    return static_cast<CapcoreSystem *>(g_object_new(CAPCORE_TYPE_SYSTEM, nullptr));
}

gboolean capcore_system_wait_for_started(CapcoreSystem *, GError **error)
{
    calls.push_back("wait_for_started");
    return standin::outcome(standin::wait_for_started, error);
}

CapcoreMap *capcore_map_new(void)
{
    calls.push_back("map_new");
    return static_cast<CapcoreMap *>(g_object_new(CAPCORE_TYPE_MAP, nullptr));
}

void capcore_map_set_uint32(CapcoreMap *, const gchar *key, guint32 value)
{
    calls.push_back(std::string("map_set_uint32 ") + key + " " + std::to_string(value));
}

CapcoreInput *capcore_input_new(guint index, GError **error)
{
    calls.push_back("input_new " + std::to_string(index));
    if (!standin::outcome(standin::input_new, error))
        return nullptr;
    return static_cast<CapcoreInput *>(g_object_new(CAPCORE_TYPE_INPUT, nullptr));
}

gboolean capcore_input_set_settings(CapcoreInput *, CapcoreMap *, GError **error)
{
    calls.push_back("set_settings");
    return standin::outcome(standin::set_settings, error);
}
