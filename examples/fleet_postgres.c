/* Keeps the events of all sites of a fleet in a table of PostgreSQL, and shows how any consumer of the fleet works.
 *
 * The servers remember, under the name of the consumer, which batches have been confirmed; this program remembers
 * nothing. It confirms a batch when PostgreSQL has committed it. If it is killed between the two, the batch comes again,
 * and the table drops what it has. So each event is in the table once, whatever fails.
 *
 * cc fleet_postgres.c -I/usr/include/postgresql -lnats -lpq */
#include <getopt.h>
#include <libpq-fe.h>
#include <nats/nats.h>
#include <poll.h>
#include <signal.h>
#include <stdbool.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#ifndef HOST_VERSION
#define HOST_VERSION "of a build by hand"
#endif

static const char _usage[] =
    "Usage: fxm-fleet-postgres --server URL [--server URL]... [--ca FILE --certificate FILE] [--name NAME]\n"
    "                          [--database CONNINFO]\n"
    "Stores the events of all sites of a fleet in the table fxm_events of PostgreSQL, until Ctrl-C or SIGTERM.\n"
    "  --server URL         a server of the fleet, such as nats://10.0.0.1:4222\n"
    "  --ca FILE            the certificate of the authority of the servers; needs --certificate\n"
    "  --certificate FILE   the certificate and the key of this program, in PEM; needs --ca\n"
    "  --name NAME          under which the servers remember what is stored (default postgres)\n"
    "  --database CONNINFO  as libpq takes it, such as \"host=db dbname=fxm\" (default: PGHOST, PGDATABASE and so on)\n"
    "  --version            print the version\n"
    "  -h, --help           print this text\n"
    "Exit code: 0 stopped by Ctrl-C or SIGTERM, 1 failed, 2 wrong usage.\n";

enum { DONE = 0, FAILED = 1, USAGE = 2 };

/* Numbers grow within a site, so the key is also the index for "the events of a site from a number on". `boot` names the
 * run of fxmd that has sent the event. An event of the type gap has no number of its own; its last missing one counts. */
static const char _make_table[] =
    "DO $$ BEGIN IF to_regclass('fxm_events') IS NULL THEN CREATE TABLE fxm_events ("
    " site text, number bigint, boot text, site_time timestamptz, stream_time timestamptz NOT NULL, type text NOT NULL,"
    " card text, document jsonb NOT NULL, PRIMARY KEY (site, number, boot)); END IF; END $$";

/* A single statement is a transaction of its own: its success says that the whole batch is committed.
 * $1 site, $2 boot, $3 microseconds since 1970, $4 the batch, an event a line. A later run of fxmd sends again what the
 * stream has lost, so an event that is there under another boot is not stored either. */
static const char _store[] =
    "INSERT INTO fxm_events (site, boot, number, site_time, stream_time, type, card, document)"
    " SELECT $1, $2, number, to_timestamp(0) + (d->>'time_ms')::bigint * interval '1 ms',"
    "  to_timestamp(0) + $3::bigint * interval '1 us', d->>'type', d->>'card', d"
    " FROM (SELECT line::jsonb AS d FROM string_to_table($4, E'\\n') AS line WHERE line <> '') AS lines,"
    "  LATERAL (SELECT coalesce(d->>'seq', d->>'to')::bigint AS number) AS numbers"
    " WHERE d <> ALL (SELECT document FROM fxm_events AS known WHERE site = $1 AND known.number = numbers.number)"
    " ON CONFLICT DO NOTHING";

enum { BATCHES = 8, ASK_MS = 1000 };          /* the servers wait so long until there are some */
enum { AGAIN_S = 5 };                         /* then they send again what is not confirmed */
enum { DATABASE_MS = 30000, STOP_MS = 3000 }; /* so long a statement may take, and after a signal */
enum { LEAST_BACK_OFF_MS = 100, MOST_BACK_OFF_MS = 5000, SERVERS = 16 };

typedef struct {
    const char *servers[SERVERS];
    int server_count;
    const char *ca, *certificate, *name, *database;
} settings_t;

typedef struct {
    natsOptions *options;
    natsConnection *servers; /* null: not connected */
    jsCtx *stream;
    natsSubscription *batches;
    PGconn *database; /* null: not connected */
    bool works;
    char told[512]; /* the last trouble, which is said once */
    unsigned long long stored_events, stored_batches, refused_batches;
} consumer_t;

typedef enum { STORED, NOT_UNDERSTOOD, NO_DATABASE } result_t;

#define _say(...) (fputs("fxm-fleet-postgres: ", stderr), fprintf(stderr, __VA_ARGS__), fputc('\n', stderr))

/* Waits at most `ms` milliseconds for Ctrl-C or SIGTERM, which are blocked in all threads. Once one has come, returns true
 * at once, every time. */
static bool _stop_asked(int ms)
{
    static bool asked = false;
    const struct timespec time = {ms / 1000, ms % 1000 * 1000000L};
    sigset_t signals;

    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    asked = asked || sigtimedwait(&signals, NULL, &time) > 0;
    return asked;
}

/* Servers may be away for days: what does not change is said once. */
static void _trouble(consumer_t *self, const char *where, const char *what)
{
    char text[sizeof self->told];

    if (what == NULL || *what == '\0')
        what = "no answer";
    snprintf(text, sizeof text, "%s: %.*s", where, (int)strcspn(what, "\n"), what); /* libpq may explain at length */
    if (self->works || strcmp(text, self->told) != 0)
        _say("%s; trying again", text);
    memcpy(self->told, text, sizeof text);
    self->works = false;
}

static void _leave_database(consumer_t *self)
{
    PQfinish(self->database); /* what is not committed is rolled back */
    self->database = NULL;
}

/* Runs one statement. Returns null if it takes too long: then nobody knows whether it was carried out. */
static PGresult *_run(consumer_t *self, const char *statement, int count, const char *const *values, const int *lengths,
                      const int *formats)
{
    struct pollfd socket = {.fd = PQsocket(self->database)};
    PGresult *more = NULL;

    if (!PQsendQueryParams(self->database, statement, count, NULL, values, lengths, formats, 0))
        return NULL;
    for (int left = DATABASE_MS; PQconsumeInput(self->database) && PQisBusy(self->database);) {
        if (_stop_asked(0) && left > STOP_MS)
            left = STOP_MS;
        if (left <= 0)
            return NULL;
        socket.events = PQflush(self->database) == 1 ? POLLIN | POLLOUT : POLLIN;
        left -= poll(&socket, 1, 100) == 0 ? 100 : 0;
    }
    PGresult *result = PQgetResult(self->database);
    while ((more = PQgetResult(self->database)) != NULL)
        PQclear(more);
    return result;
}

static bool _join_database(consumer_t *self, const settings_t *settings)
{
    /* What stands before "dbname" can be changed by --database; what stands behind it cannot. */
    const char *const keys[] = {"connect_timeout", "fallback_application_name", "dbname", "client_encoding", NULL};
    const char *const values[] = {"5", "fxm-fleet-postgres", settings->database, "UTF8", NULL};

    if (self->database != NULL)
        return true;
    self->database = PQconnectdbParams(keys, values, 1);
    PQsetnonblocking(self->database, 1); /* a database that hangs must not keep a signal waiting */
    PGresult *made = PQstatus(self->database) == CONNECTION_OK ? _run(self, _make_table, 0, NULL, NULL, NULL) : NULL;
    const bool good = PQresultStatus(made) == PGRES_COMMAND_OK;
    PQclear(made);
    if (good)
        return true;
    _trouble(self, "database", PQerrorMessage(self->database));
    _leave_database(self);
    return false;
}

/* The id of a batch is SITE.BOOT.FIRST or SITE.BOOT-N.FIRST, where N counts losses of the stream. The servers let a site
 * send to its own subject alone, so the subject says which one it is. */
static bool _read_id(const char *id, const char *site, char boot[33])
{
    const size_t length = strlen(site);

    return strncmp(id, site, length) == 0 && id[length] == '.' && sscanf(id + length + 1, "%32[a-z0-9]", boot) == 1;
}

static const char *_header(natsMsg *batch, const char *name)
{
    const char *value = NULL;

    return natsMsgHeader_Get(batch, name, &value) == NATS_OK && value != NULL ? value : "";
}

static result_t _leave_out(consumer_t *self, uint64_t number, const char *id, const char *why)
{
    self->refused_batches += 1;
    _say("batch %llu, \"%s\", is not understood; it is left out: %s", (unsigned long long)number, id, why);
    return NOT_UNDERSTOOD;
}

static result_t _store_batch(consumer_t *self, natsMsg *batch, uint64_t number, int64_t stream_us)
{
    const char *site = natsMsg_GetSubject(batch) + strlen("fxm.ev.");
    const char *id = _header(batch, "Nats-Msg-Id");
    char boot[33], time[24];

    if (strcmp(_header(batch, "Fxm-Schema"), "fxm/1") != 0)
        return _leave_out(self, number, id, "its schema is not fxm/1");
    if (!_read_id(id, site, boot))
        return _leave_out(self, number, id, "its id does not fit the subject of the site");
    snprintf(time, sizeof time, "%lld", (long long)stream_us);
    /* The text goes with its length, so PostgreSQL refuses a zero byte instead of ending there. */
    const char *const values[] = {site, boot, time, natsMsg_GetData(batch)};
    const int lengths[] = {0, 0, 0, natsMsg_GetDataLength(batch)};
    const int formats[] = {0, 0, 0, 1};
    PGresult *done = _run(self, _store, 4, values, lengths, formats);
    const char *state = PQresultErrorField(done, PG_DIAG_SQLSTATE);
    result_t result = NO_DATABASE;
    if (PQresultStatus(done) == PGRES_COMMAND_OK) {
        result = STORED;
        self->stored_batches += 1;
        self->stored_events += strtoull(PQcmdTuples(done), NULL, 10);
    } else if (state != NULL &&
               (strncmp(state, "22", 2) == 0 || strncmp(state, "54", 2) == 0 || strcmp(state, "23502") == 0)) {
        /* Its text, its nesting, or a member that is missing. Whatever else fails may work later. */
        result = _leave_out(self, number, id, PQresultErrorField(done, PG_DIAG_MESSAGE_PRIMARY));
    } else {
        _trouble(self, "database", PQerrorMessage(self->database));
    }
    PQclear(done);
    return result;
}

/* On a thread of libnats: what the servers refuse, such as a right that is missing. */
static void _on_refusal(natsConnection *servers, natsSubscription *batches, natsStatus status, void *unused)
{
    const char *text = NULL;
    (void)batches, (void)unused;

    natsConnection_GetLastError(servers, &text);
    _say("servers: %s", text != NULL && *text != '\0' ? text : natsStatus_GetText(status));
}

/* False if something is wrong, which nats_GetLastError tells then. */
static bool _prepare(consumer_t *self, const settings_t *settings)
{
    char inbox[64];

    snprintf(inbox, sizeof inbox, "_INBOX_%s", settings->name);
    return natsOptions_Create(&self->options) == NATS_OK &&
           natsOptions_SetServers(self->options, (const char **)settings->servers, settings->server_count) == NATS_OK &&
           natsOptions_SetName(self->options, settings->name) == NATS_OK &&
           natsOptions_SetCustomInboxPrefix(self->options, inbox) == NATS_OK &&
           natsOptions_SetErrorHandler(self->options, _on_refusal, NULL) == NATS_OK &&
           natsOptions_SetTimeout(self->options, 3000) == NATS_OK &&
           natsOptions_SetPingInterval(self->options, 5000) == NATS_OK &&    /* a silent server is noticed */
           natsOptions_SetAllowReconnect(self->options, false) == NATS_OK && /* the loop in main connects again */
           (settings->ca == NULL || (natsOptions_SetSecure(self->options, true) == NATS_OK &&
                                     natsOptions_LoadCATrustedCertificates(self->options, settings->ca) == NATS_OK &&
                                     natsOptions_LoadCertificatesChain(self->options, settings->certificate,
                                                                       settings->certificate) == NATS_OK));
}

/* The servers keep the consumer and what it has confirmed. */
static void _leave_servers(consumer_t *self)
{
    natsConnection_FlushTimeout(self->servers, ASK_MS); /* the last confirmations */
    natsSubscription_Destroy(self->batches);
    jsCtx_Destroy(self->stream);
    natsConnection_Destroy(self->servers);
    self->batches = NULL, self->stream = NULL, self->servers = NULL;
}

static bool _join_servers(consumer_t *self, const settings_t *settings)
{
    jsSubOptions wanted;

    if (self->servers != NULL)
        return true;
    jsSubOptions_Init(&wanted);
    wanted.Stream = "FXM_EVENTS";
    wanted.Config.AckWait = AGAIN_S * 1000000000LL;
    natsStatus status = natsConnection_Connect(&self->servers, self->options);
    if (status == NATS_OK)
        status = natsConnection_JetStream(&self->stream, self->servers, NULL);
    if (status == NATS_OK) /* makes the consumer when it comes for the first time */
        status = js_PullSubscribe(&self->batches, self->stream, "fxm.ev.*", settings->name, NULL, &wanted, NULL);
    if (status == NATS_OK)
        return true;
    _trouble(self, "servers", nats_GetLastError(NULL));
    _leave_servers(self);
    return false;
}

/* Takes what the stream has, and waits a moment if it has nothing. False if something does not work. */
static bool _take(consumer_t *self)
{
    natsMsgList batches = {NULL, 0};
    bool good = true;
    const natsStatus status = natsSubscription_Fetch(&batches, self->batches, BATCHES, ASK_MS, NULL);

    for (int i = 0; i < batches.Count; i++) {
        natsMsg *batch = batches.Msgs[i];
        jsMsgMetaData *about = NULL;
        result_t result = NO_DATABASE;
        if (good && !_stop_asked(0) && natsMsg_GetMetaData(&about, batch) == NATS_OK)
            result = _store_batch(self, batch, about->Sequence.Stream, about->Timestamp / 1000);
        jsMsgMetaData_Destroy(about);
        good = result != NO_DATABASE;
        if (result == STORED)
            natsMsg_Ack(batch, NULL);
        else if (result == NOT_UNDERSTOOD)
            natsMsg_Term(batch, NULL); /* else it would come again for ever */
        else
            natsMsg_Nak(batch, NULL); /* so it comes again soon */
    }
    natsMsgList_Destroy(&batches);
    if (!good && self->database != NULL && !_stop_asked(0))
        _leave_database(self);
    if (status != NATS_OK && status != NATS_TIMEOUT) {
        _trouble(self, "servers", natsStatus_GetText(status));
        _leave_servers(self);
        return false;
    }
    if (good && !self->works)
        _say("events are stored in the database %s", PQdb(self->database));
    self->works = good;
    return good;
}

/* False if something is wrong, which is on stderr then. */
static bool _check(const settings_t *settings)
{
    static const char letters[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-_";
    const size_t length = strlen(settings->name);
    char *why = NULL;
    PQconninfoOption *database = PQconninfoParse(settings->database, &why);
    const char *wrong = NULL;

    if (settings->server_count == 0 || settings->server_count > SERVERS)
        wrong = "name a server of the fleet with --server, and at most 16";
    else if ((settings->ca == NULL) != (settings->certificate == NULL))
        wrong = "--ca and --certificate go together: give both or none";
    else if (length == 0 || length > 32 || strspn(settings->name, letters) != length)
        wrong = "--name takes 1 to 32 letters, digits, - and _";
    else if (database == NULL)
        wrong = why != NULL ? why : "--database: no memory";
    if (wrong != NULL)
        _say("%s", wrong);
    PQfreemem(why);
    PQconninfoFree(database);
    return wrong == NULL;
}

int main(int argc, char **argv)
{
    static const struct option options[] = {
        {"server", required_argument, NULL, 's'},      {"ca", required_argument, NULL, 'a'},
        {"certificate", required_argument, NULL, 'c'}, {"name", required_argument, NULL, 'n'},
        {"database", required_argument, NULL, 'd'},    {"help", no_argument, NULL, 'h'},
        {"version", no_argument, NULL, 'V'},           {NULL, 0, NULL, 0}};
    settings_t settings = {.name = "postgres", .database = ""};
    consumer_t self = {0};
    bool wrong = false;
    sigset_t signals;

    for (int option; (option = getopt_long(argc, argv, "h", options, NULL)) != -1;) {
        if (option == 'h' || option == 'V') {
            fputs(option == 'h' ? _usage : "fxm-fleet-postgres " HOST_VERSION "\n", stdout);
            return DONE;
        }
        if (option == 'a')
            settings.ca = optarg;
        else if (option == 'c')
            settings.certificate = optarg;
        else if (option == 'n')
            settings.name = optarg;
        else if (option == 'd')
            settings.database = optarg;
        else if (option == 's' && settings.server_count++ < SERVERS)
            settings.servers[settings.server_count - 1] = optarg;
        else if (option == '?')
            wrong = true; /* getopt_long has printed what */
    }
    if (optind < argc)
        _say("unknown argument: %s", argv[optind]);
    if (wrong || optind < argc || !_check(&settings)) {
        fputs("See \"fxm-fleet-postgres --help\".\n", stderr);
        return USAGE;
    }

    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, NULL); /* the threads of libnats inherit the mask */
    if (!_prepare(&self, &settings)) {
        _say("nothing can be connected: %s; check --server, --ca and --certificate", nats_GetLastError(NULL));
        natsOptions_Destroy(self.options);
        return FAILED;
    }
    for (int back_off = 0; !_stop_asked(back_off);) {
        const int longer = 2 * back_off + LEAST_BACK_OFF_MS;
        if (_join_database(&self, &settings) && _join_servers(&self, &settings) && _take(&self))
            back_off = 0;
        else
            back_off = longer < MOST_BACK_OFF_MS ? longer : MOST_BACK_OFF_MS;
    }
    _leave_servers(&self);
    _leave_database(&self);
    natsOptions_Destroy(self.options);
    nats_CloseAndWait(2000);
    _say("stopped: %llu new events of %llu batches stored, %llu batches not understood", self.stored_events,
         self.stored_batches, self.refused_batches);
    return DONE;
}
