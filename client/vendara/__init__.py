"""Client of the installation service on the session bus: the library vendara-client for Python. One thread."""

import os
import weakref
from typing import NamedTuple

from gi.repository import Gio, GLib

TYPES = {0: "install", 1: "upgrade", 2: "remove"}
STATUSES = {0: "queued", 10: "in progress", 90: "awaiting upgrade", 100: "finished", 101: "failed"}
ERRORS = {
    1: "a file could not be written or removed; the disk may be full",
    2: "an internal failure of the service or the package manager",
    3: "the package manager could not find the file",
    4: "the file is damaged or not a package",
    5: "the package's identifier is not allowed",
    6: "the package is made for another architecture",
    7: "the package's signature is missing, wrong or not trusted",
    8: "the same or a newer version is installed",
    9: "an upgrade to this version is already prepared",
    10: "the package is not installed",
    11: "the installed package is damaged",
    13: "the package manager does not allow it",
    14: "the package belongs to the operating system",
    15: "packages without a source are not allowed",
    16: "the administrator rejected the package's source",
    17: "the user may not manage trusted sources"}
FINISHED, FAILED = 100, 101  # A lower status is followed by another one.

_NAME, _PATH = "norvane.Vendara", "/norvane/Vendara"
_BUS = "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus"
_CALL_LIMIT = 150_000  # ms: the bus takes up to two minutes to start the service, which replies within 25 seconds
_ABSENCES = {"org.freedesktop.DBus.Error." + error for error in (
    "NoReply", "ServiceUnknown", "NameHasNoOwner", "Disconnected", "TimedOut", "Timeout")}
_INTERVAL = 3_000  # ms: how often the service is asked for an end whose signal was missed
_SHORT_INTERVAL = 100  # ms: the same after the announcement that ends an operation of another connection
_ANNOUNCEMENTS = {"PackageInstalled": 0, "PackageUpgraded": 1, "PackageRemoved": 2}  # types of operations


class Error(Exception):
    """Base class of the exceptions of Client."""


class CallRefused(Error):
    """The service refused a call; the text is its error message."""


class ServiceAbsent(Error):
    """There is no session bus, or the service cannot be started, left the bus or lost an operation."""


class Operation(NamedTuple):
    id: str
    package_id: str
    type: int
    status: int
    error_code: int  # 0 while nothing failed

    def __str__(self):
        package = self.package_id if self.package_id.isprintable() else ascii(self.package_id)
        phrase = ERRORS.get(self.error_code, "an unknown error")
        error = f": {phrase} (error {self.error_code})" if self.error_code else ""
        return f"{TYPES.get(self.type, self.type)} {package}: {STATUSES.get(self.status, self.status)}{error}"


class Package(NamedTuple):
    id: str
    version: str
    certificate_subgroup: str
    certificate_id: str
    extra: dict


class Properties(NamedTuple):
    """The service's state as the calling application sees it."""
    architecture: str
    quenra_version: str  # without the quotes of os-release(5)
    operations: list[Operation]  # not completed, or not yet reported
    completed_operations: list[Operation]  # each reported once
    packages: list[Package]


class Client:
    """On one session-bus connection, which ends with close(), a with block or the client itself. The bus starts the
    service if it is not running."""

    def __init__(self, changed=lambda operation: None):
        """Connects. changed is called with each new status of an operation, in install(), remove() and follow(),
        and with operations of the application that completed earlier and are reported only once."""
        self._changed = changed
        self._operations = {}  # by id
        self._absent = set()  # those that the service did not list
        self._attached = set()
        self._announced = set()  # types of operations and packages
        self._timer = 0  # while operations are followed
        self._interval = 0
        self._failures = []  # of handlers, until follow() raises them
        self._loop = GLib.MainLoop()
        flags, of_proxy = Gio.DBusConnectionFlags, Gio.DBusProxyFlags
        try:
            address = Gio.dbus_address_get_for_bus_sync(Gio.BusType.SESSION)
            self._bus = Gio.DBusConnection.new_for_address_sync(
                address, flags.AUTHENTICATION_CLIENT | flags.MESSAGE_BUS_CONNECTION)
            self._leave = weakref.finalize(self, _close, self._bus)
            self._leave.atexit = False  # A forked process would wait for GLib's thread, which it does not have.
            self._service = Gio.DBusProxy.new_sync(
                self._bus, of_proxy.DO_NOT_LOAD_PROPERTIES | of_proxy.DO_NOT_AUTO_START_AT_CONSTRUCTION, None,
                _NAME, _PATH, _NAME)
        except GLib.Error as error:
            raise ServiceAbsent(f"there is no session bus: {error.message}") from None
        self._service.connect("g-signal", self._guarded(self._signalled))
        self._service.connect("notify::g-name-owner", self._guarded(self._require_service))
        self._bus.connect("closed", self._guarded(self._require_service))

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        """Leaves the bus. Operations continue; their results are reported to the application's next client."""
        self._leave()

    def install(self, path):
        """Queues the installation or upgrade of a package file. Returns the operation, followed from now on."""
        path = os.fsdecode(path)
        try:
            path = os.path.join(os.getcwd(), path)
        except OSError:
            pass  # The working directory was deleted: the service refuses a relative path.
        return self._begin("Install", path)

    def remove(self, package_id):
        """Queues the removal of a package. Returns the operation, followed from now on."""
        return self._begin("Remove", package_id)

    def start(self, package_id):
        self._call("Start", package_id)

    def restart(self, package_id):
        """Terminates the application and starts it again, after a prepared upgrade is completed."""
        self._call("Restart", package_id)

    def properties(self):
        """Returns Properties. Completed operations are reported once. If the service does not reply to a ping, this takes
        one second longer."""
        # Announcements received before the call do not concern the operations in the reply; discard them first.
        GLib.idle_add(self._announced.clear, priority=GLib.PRIORITY_DEFAULT)
        return self._properties()

    def attach(self, operation):
        """Follows an operation of properties() that another connection of this application requested. Its statuses are
        sent to that connection, so the client asks for them. When the operation is no longer listed, the announcement
        of its package's change means that it finished."""
        self._attached.add(operation.id)
        known = self._operations.get(operation.id)
        if known is None or known.status < operation.status:
            self._operations[operation.id] = operation
            self._changed(operation)

    def follow(self):
        """Waits until all operations of this client have ended, then at most a second for a reply that shows that the
        service has recorded their ends. Returns whether all succeeded. Raises first what failed while another loop ran:
        the service left the bus, or changed raised an exception."""
        self._raise_failure()
        if self._pending():
            # Handle signals first: one that arrived during a slow reply must precede the next query.
            self._ask_after(_INTERVAL)
            try:
                self._loop.run()
            finally:
                GLib.source_remove(self._timer)
                self._timer = 0
            self._raise_failure()
        self._confirm()
        return all(operation.status == FINISHED for operation in self._operations.values())

    def _raise_failure(self):
        if self._failures:
            raise self._failures.pop(0)

    def _properties(self):
        try:
            reply, = self._call("GetAllProperties").unpack()
            completed = [*map(Operation._make, reply["CompletedOperations"])]
            ended = {operation.id for operation in completed}
            # An operation that failed stays in the first list until the next one begins.
            going = [each for each in map(Operation._make, reply["Operations"]) if each.id not in ended]
            properties = Properties(reply["Architecture"], _without_quotes(reply["QuenraVersion"]), going, completed,
                                    [*map(Package._make, reply["Packages"])])
        except (KeyError, TypeError, ValueError):
            raise CallRefused("the service's properties are incomplete") from None
        if completed:
            self._confirm()
        return properties

    def _begin(self, method, argument):
        reply = self._call(method, argument)
        if reply.get_type_string() != "((ssiii))":
            raise CallRefused(f"unexpected reply of the service: it has the type {reply.get_type_string()}")
        operation = Operation(*reply.unpack()[0])
        self._operations[operation.id] = operation
        self._changed(operation)
        return operation

    def _call(self, method, *arguments):
        try:
            if not all(map(_is_bus_text, arguments)):
                raise CallRefused("not valid UTF-8, or with a character that D-Bus does not allow")
            values = GLib.Variant(f"({'s' * len(arguments)})", arguments)
            return self._send(_NAME, _PATH, _NAME, method, values)
        except TypeError as error:
            raise CallRefused(f"not a valid argument: {error}") from None
        except GLib.Error as error:
            name = Gio.DBusError.get_remote_error(error)
            dropped = error.matches(Gio.io_error_quark(), Gio.IOErrorEnum.PERMISSION_DENIED)  # not the service's reply
            refused = dropped or name == _NAME + ".Error" or name and name not in _ABSENCES and self._is_running()
            kind = CallRefused if refused else ServiceAbsent
            raise kind(error.message.removeprefix(f"GDBus.Error:{name}: ")) from None

    # A proxy would call the owner that it saw in the last run of the loop. Any client of the bus may reply to any call,
    # and GLib compares only the serial; the owner may change while it replies.
    def _send(self, service, path, interface, method, values=None, flags=Gio.DBusMessageFlags.NONE, limit=_CALL_LIMIT):
        call = Gio.DBusMessage.new_method_call(service, path, interface, method)
        call.set_flags(flags)
        if values is not None:
            call.set_body(values)
        senders = {_BUS[0]} if service == _BUS[0] else {_BUS[0], self._owner(limit)}
        reply, _ = self._bus.send_message_with_reply_sync(call, Gio.DBusSendMessageFlags.NONE, limit)
        if reply.get_sender() not in senders and (service == _BUS[0] or reply.get_sender() != self._owner(limit)):
            raise GLib.Error.new_literal(Gio.io_error_quark(), f"dropped a reply not sent by {service}",
                                         Gio.IOErrorEnum.PERMISSION_DENIED)
        reply.to_gerror()
        body = reply.get_body()
        return GLib.Variant("()", ()) if body is None else body

    def _owner(self, limit=_CALL_LIMIT):
        try:
            return self._send(*_BUS, "GetNameOwner", GLib.Variant("(s)", (_NAME,)), limit=limit).unpack()[0]
        except GLib.Error:
            return None

    def _is_running(self):  # Now: what the proxy sees may be older than an operation of the service's next process.
        return self._owner() is not None

    # After sending the end of an operation, the service checks that its receiver is still on the bus, and reports the
    # end again if not. When it replies to a ping, this check is done.
    def _confirm(self):
        try:
            self._send(_NAME, _PATH, "org.freedesktop.DBus.Peer", "Ping", flags=Gio.DBusMessageFlags.NO_AUTO_START,
                       limit=1000)
        except GLib.Error:
            pass  # Nothing that was received is lost.

    def _pending(self):
        return {key for key, operation in self._operations.items() if operation.status < FINISHED}

    def _update(self, operation):  # Statuses may repeat the status in the reply.
        if operation.id in self._pending() and operation.status > self._operations[operation.id].status:
            self._operations[operation.id] = operation
            self._changed(operation)
            if not self._pending():
                self._loop.quit()

    def _signalled(self, _proxy, _sender, signal, arguments):
        if signal == "OperationStatusChanged" and arguments.get_type_string() == "((ssiii))":
            self._update(Operation(*arguments.unpack()[0]))
        elif signal in _ANNOUNCEMENTS and arguments.get_type_string() in ("((ssssa{sv}))", "(s)"):
            package, = arguments.unpack()
            self._announced.add((_ANNOUNCEMENTS[signal], package if isinstance(package, str) else package[0]))
            if self._timer and any(self._is_announced(key) for key in self._attached & self._pending()):
                self._ask_after(_SHORT_INTERVAL)

    def _is_announced(self, key):
        operation = self._operations[key]
        return key in self._attached and (operation.type, operation.package_id) in self._announced

    def _ask_after(self, interval):
        if self._timer:
            GLib.source_remove(self._timer)
        self._interval = interval
        self._timer = GLib.timeout_add(interval, self._guarded(self._ask), priority=GLib.PRIORITY_LOW)

    def _require_service(self, *_):
        if self._pending() and not self._is_running():
            who = "service" if self._leave.alive else "client"
            raise ServiceAbsent(f"the {who} left the bus; the result of the operation is unknown")

    def _ask(self):
        self._ask_after(min(2 * self._interval, _INTERVAL))
        try:
            properties = self._properties()
        except CallRefused:
            return  # The package manager may be busy: the service is asked again.
        completed = properties.completed_operations
        absent = self._pending() - {operation.id for operation in properties.operations + completed}
        for operation in properties.operations + completed:
            self._update(operation)
        for operation in completed:
            if operation.id not in self._operations:
                self._changed(operation)
        for key in absent & self._absent:
            if not self._is_announced(key):
                raise ServiceAbsent("the service no longer lists the operation; its result is unknown")
            self._update(self._operations[key]._replace(status=FINISHED))
        self._absent = absent  # An operation may be on its way from one list to the other.

    @staticmethod
    def _guarded(handler):  # What a handler raises leaves follow(). The connection must not keep the client.
        weak = weakref.WeakMethod(handler)

        def call(*arguments):
            if method := weak():
                try:
                    method(*arguments)
                except BaseException as failure:
                    trace = failure.__traceback__
                    while trace and trace.tb_frame.f_globals is globals():  # These frames would keep the client.
                        trace = trace.tb_next
                    method.__self__._failures.append(failure.with_traceback(trace))
                    method.__self__._loop.quit()
            return True
        return call


def _is_bus_text(text):  # GLib sends noncharacters, which the service's library does not read.
    codes = [ord(character) for character in text]
    return not any(code == 0 or 0xD800 <= code <= 0xDFFF or 0xFDD0 <= code <= 0xFDEF or code & 0xFFFE == 0xFFFE
                   for code in codes)


def _without_quotes(text):
    return text[1:-1] if len(text) > 1 and text[0] == text[-1] and text[0] in "\"'" else text


def _close(bus):
    try:
        bus.close_sync(None)
    except GLib.Error:
        pass  # The bus closed it before.
