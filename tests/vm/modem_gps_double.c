// The test VM's stand-in for ModemManager, whose hardware the VM has none of: it owns
// org.freedesktop.ModemManager1 on the system bus with one registered modem at
// /org/freedesktop/ModemManager1/Modem/0 that has a GPS. From HOLD seconds (default 10)
// after a client sets the GPS source up, or from a SIGUSR1, the modem reports a fix at
// the given position every second: a $GPGGA and a $GPRMC sentence stamped with the
// current UTC time, so that each fix differs from the last (GeoClue ignores a repeated
// GGA sentence). Prints each call it answers.
//   zel_vm_modem_gps LATITUDE LONGITUDE [HOLD]
#include <gio/gio.h>
#include <glib-unix.h>
#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#define MANAGER_PATH "/org/freedesktop/ModemManager1"
#define MODEM_PATH MANAGER_PATH "/Modem/0"
#define MODEM_INTERFACE "org.freedesktop.ModemManager1.Modem"
#define LOCATION_INTERFACE MODEM_INTERFACE ".Location"

// ModemManager's values: location sources (bits) and the registered modem state.
enum { kSource3gppLacCi = 1, kSourceGpsNmea = 4, kStateRegistered = 8 };
// GeoClue submits a GPS fix with the networks of its last Wi-Fi scan; a fix that comes
// before its first scan (about 4 s under emulation) is dropped and the next is tried only
// 60 s later, so the first fix waits a while after the GPS is set up.
static const double kHoldBackSeconds = 10.0;

static const char kInterfaces[] =
    "<node><interface name='org.freedesktop.DBus.ObjectManager'>"
    "<method name='GetManagedObjects'><arg type='a{oa{sa{sv}}}' direction='out'/></method>"
    "</interface><interface name='" MODEM_INTERFACE
    "'><property name='State' type='i' access='read'/></interface>"
    "<interface name='" LOCATION_INTERFACE
    "'><method name='Setup'><arg type='u' direction='in'/><arg type='b' direction='in'/></method>"
    "<method name='GetLocation'><arg type='a{uv}' direction='out'/></method>"
    "<method name='SetGpsRefreshRate'><arg type='u' direction='in'/></method>"
    "<property name='Capabilities' type='u' access='read'/>"
    "<property name='Enabled' type='u' access='read'/>"
    "<property name='SignalsLocation' type='b' access='read'/>"
    "<property name='Location' type='a{uv}' access='read'/></interface></node>";
static const char* const kModemProperties[] = {"State", NULL};
static const char* const kLocationProperties[] = {"Capabilities", "Enabled", "SignalsLocation",
                                                  "Location", NULL};

static struct {
    GDBusConnection* bus;
    GMainLoop* loop;
    int status;
    double latitude, longitude;  // degrees
    guint32 enabled;
    gboolean signalsLocation;
    gint64 holdBackUs;   // 0 from a SIGUSR1 on
    gint64 gpsSinceUs;   // monotonic time the GPS was set up, 0 while it is not
    GVariant* location;  // a{uv}: source -> its last value
} modem;

static GVariant* property(const char* name) {
    if (strcmp(name, "State") == 0)
        return g_variant_new_int32(kStateRegistered);
    if (strcmp(name, "Capabilities") == 0)
        return g_variant_new_uint32(kSource3gppLacCi | kSourceGpsNmea);
    if (strcmp(name, "Enabled") == 0)
        return g_variant_new_uint32(modem.enabled);
    if (strcmp(name, "SignalsLocation") == 0)
        return g_variant_new_boolean(modem.signalsLocation);
    if (strcmp(name, "Location") == 0)
        return g_variant_ref(modem.location);
    return NULL;
}

static GVariant* properties(const char* const* names) {
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE("a{sv}"));
    for (; *names != NULL; ++names)
        g_variant_builder_add(&builder, "{sv}", *names, property(*names));
    return g_variant_builder_end(&builder);
}

static void propertiesChanged(const char* const* names) {
    g_dbus_connection_emit_signal(
        modem.bus, NULL, MODEM_PATH, "org.freedesktop.DBus.Properties", "PropertiesChanged",
        g_variant_new_parsed("(%s, %@a{sv}, @as [])", LOCATION_INTERFACE, properties(names)), NULL);
}

// Degrees as NMEA's (d)ddmm.mmmmmm and a hemisphere letter.
static void coordinate(char* out, size_t size, double degrees, int width, const char* hemispheres) {
    double magnitude = fabs(degrees);
    int whole = (int)magnitude;
    snprintf(out, size, "%0*d%09.6f,%c", width, whole, (magnitude - whole) * 60.0,
             hemispheres[degrees < 0]);
}

// "$BODY*CS", BODY being printed from FORMAT and CS the XOR of its bytes in hexadecimal.
static char* sentence(const char* format, ...) G_GNUC_PRINTF(1, 2);
static char* sentence(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    g_autofree char* body = g_strdup_vprintf(format, arguments);
    va_end(arguments);
    unsigned checksum = 0;
    for (const char* c = body; *c != '\0'; ++c)
        checksum ^= (unsigned char)*c;
    return g_strdup_printf("$%s*%02X", body, checksum);
}

// A fix with 8 satellites and an HDOP of 0.8, which GeoClue takes as accurate enough to
// submit.
static GVariant* fixNow(void) {
    g_autoptr(GDateTime) now = g_date_time_new_now_utc();
    char latitude[32], longitude[32];
    coordinate(latitude, sizeof latitude, modem.latitude, 2, "NS");
    coordinate(longitude, sizeof longitude, modem.longitude, 3, "EW");
    g_autofree char* time = g_date_time_format(now, "%H%M%S.00");
    g_autofree char* date = g_date_time_format(now, "%d%m%y");
    g_autofree char* gga =
        sentence("GPGGA,%s,%s,%s,1,08,0.8,273.0,M,47.0,M,,", time, latitude, longitude);
    g_autofree char* rmc =
        sentence("GPRMC,%s,A,%s,%s,0.0,0.0,%s,,,A", time, latitude, longitude, date);
    g_autofree char* traces = g_strconcat(gga, "\r\n", rmc, NULL);
    printf("fix: %s\n", gga);
    return g_variant_ref_sink(g_variant_new_parsed("{%u: <%s>}", (guint32)kSourceGpsNmea, traces));
}

static gboolean tick(gpointer unused) {
    (void)unused;
    if (modem.gpsSinceUs != 0 && g_get_monotonic_time() - modem.gpsSinceUs >= modem.holdBackUs) {
        g_variant_unref(modem.location);
        modem.location = fixNow();
        static const char* const kChanged[] = {"Location", NULL};
        propertiesChanged(kChanged);
    }
    return G_SOURCE_CONTINUE;
}

static void call(GDBusConnection* bus, const char* sender, const char* path, const char* interface,
                 const char* method, GVariant* parameters, GDBusMethodInvocation* invocation,
                 gpointer unused) {
    (void)bus, (void)sender, (void)path, (void)interface, (void)unused;
    char* arguments = g_variant_print(parameters, FALSE);
    printf("call: %s%s\n", method, arguments);
    g_free(arguments);
    if (strcmp(method, "GetManagedObjects") == 0) {
        g_dbus_method_invocation_return_value(
            invocation, g_variant_new_parsed("({%o: {%s: %@a{sv}, %s: %@a{sv}}},)", MODEM_PATH,
                                             MODEM_INTERFACE, properties(kModemProperties),
                                             LOCATION_INTERFACE, properties(kLocationProperties)));
    } else if (strcmp(method, "Setup") == 0) {
        g_variant_get(parameters, "(ub)", &modem.enabled, &modem.signalsLocation);
        if (!(modem.enabled & kSourceGpsNmea))
            modem.gpsSinceUs = 0;
        else if (modem.gpsSinceUs == 0)
            modem.gpsSinceUs = g_get_monotonic_time();
        static const char* const kChanged[] = {"Enabled", "SignalsLocation", NULL};
        propertiesChanged(kChanged);
        g_dbus_method_invocation_return_value(invocation, NULL);
    } else if (strcmp(method, "GetLocation") == 0) {
        g_dbus_method_invocation_return_value(invocation,
                                              g_variant_new("(@a{uv})", modem.location));
    } else {  // SetGpsRefreshRate: a fix a second whatever the rate
        g_dbus_method_invocation_return_value(invocation, NULL);
    }
}

static GVariant* get(GDBusConnection* bus, const char* sender, const char* path,
                     const char* interface, const char* name, GError** error, gpointer unused) {
    (void)bus, (void)sender, (void)path, (void)interface, (void)unused;
    GVariant* value = property(name);
    if (value == NULL)
        g_set_error(error, G_DBUS_ERROR, G_DBUS_ERROR_UNKNOWN_PROPERTY, "no property %s", name);
    return value;
}

static void acquired(GDBusConnection* bus, const char* name, gpointer unused) {
    (void)bus, (void)unused;
    printf("owns %s\n", name);
}

static void lost(GDBusConnection* bus, const char* name, gpointer unused) {
    (void)bus, (void)unused;
    fprintf(stderr, "zel_vm_modem_gps: cannot own %s on the system bus\n", name);
    modem.status = 1;
    g_main_loop_quit(modem.loop);
}

static gboolean release(gpointer unused) {
    (void)unused;
    modem.holdBackUs = 0;
    return G_SOURCE_CONTINUE;
}

static gboolean parse(const char* text, double limit, double* out) {
    char* end = NULL;
    *out = strtod(text, &end);
    return end != text && *end == '\0' && fabs(*out) <= limit;
}

int main(int argc, char** argv) {
    double hold = kHoldBackSeconds;
    if (argc < 3 || argc > 4 || !parse(argv[1], 90.0, &modem.latitude) ||
        !parse(argv[2], 180.0, &modem.longitude) ||
        (argc == 4 && (!parse(argv[3], 3600.0, &hold) || hold < 0))) {
        fprintf(stderr, "usage: zel_vm_modem_gps LATITUDE LONGITUDE (degrees) [HOLD (s)]\n");
        return 2;
    }
    modem.holdBackUs = (gint64)(hold * G_USEC_PER_SEC);
    setvbuf(stdout, NULL, _IOLBF, 0);  // each line at once, for the check's log
    GError* error = NULL;
    modem.bus = g_bus_get_sync(G_BUS_TYPE_SYSTEM, NULL, &error);
    GDBusNodeInfo* node = modem.bus ? g_dbus_node_info_new_for_xml(kInterfaces, &error) : NULL;
    if (node == NULL) {
        fprintf(stderr, "zel_vm_modem_gps: %s\n", error->message);
        return 1;
    }
    modem.location = g_variant_ref_sink(g_variant_new_parsed("@a{uv} {}"));
    const GDBusInterfaceVTable vtable = {call, get, NULL, {0}};
    // Registered before the name is owned, so the first client finds them.
    if (!g_dbus_connection_register_object(modem.bus, MANAGER_PATH, node->interfaces[0], &vtable,
                                           NULL, NULL, &error) ||
        !g_dbus_connection_register_object(modem.bus, MODEM_PATH, node->interfaces[1], &vtable,
                                           NULL, NULL, &error) ||
        !g_dbus_connection_register_object(modem.bus, MODEM_PATH, node->interfaces[2], &vtable,
                                           NULL, NULL, &error)) {
        fprintf(stderr, "zel_vm_modem_gps: %s\n", error->message);
        return 1;
    }
    modem.loop = g_main_loop_new(NULL, FALSE);
    g_bus_own_name_on_connection(modem.bus, "org.freedesktop.ModemManager1",
                                 G_BUS_NAME_OWNER_FLAGS_NONE, acquired, lost, NULL, NULL);
    g_timeout_add_seconds(1, tick, NULL);
    g_unix_signal_add(SIGUSR1, release, NULL);
    g_main_loop_run(modem.loop);
    return modem.status;
}
