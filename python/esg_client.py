"""The electronic service guide of an ATSC 3.0 receiver.

    from esg_client import guide
    print(guide.present("tag:example.com,2026:pebblecove").title)

Queries block until the service has replied, at most 25 seconds. Any thread may query. The first
query of a process waits for the bus, about a minute at most, and ends the process if there is none.
"""

import collections
import ctypes
import dataclasses
import datetime
import os
import select
import signal
import threading
import weakref


class _PollFD(ctypes.Structure):
    _fields_ = [("fd", ctypes.c_int), ("events", ctypes.c_ushort), ("revents", ctypes.c_ushort)]


class _Handle(ctypes.c_void_p):  # may have an owner as an attribute
    pass


_EventFunction = ctypes.CFUNCTYPE(None, *[ctypes.c_int] * 4, ctypes.c_void_p)
_types = {"v": None, "i": ctypes.c_int, "u": ctypes.c_uint, "U": ctypes.c_uint64,
          "s": ctypes.c_char_p, "p": ctypes.c_void_p, "o": ctypes.POINTER(ctypes.c_void_p),
          "e": _EventFunction, "f": ctypes.POINTER(_PollFD)}


def _load(library, prefix, signatures):
    """Declares functions of a library by their types, that of the result first."""
    for types, names in signatures.items():
        for name in names.split():
            function = getattr(library, prefix + name)
            function.restype, *function.argtypes = (_types[each] for each in types)
    return library


_glib = _load(ctypes.CDLL("libglib-2.0.so.0"), "g_main_context_", {
    "ipi": "iteration", "vpfi": "add_poll", "vpf": "remove_poll"})
_esg = _load(ctypes.CDLL(os.environ.get("ESG_CLIENT_LIBRARY", "libesg-client.so.1")), "FCESG", {
    "i": "GuideLastReason", "s": "GuideLastErrorName GuideLastErrorText", "si": "ReasonText",
    "vp": "ProgramDispose ProgramListDispose TextDispose",
    "sp": "ProgramTitle ProgramSynopsis ProgramGenre ProgramEventID ProgramServiceID "
          "IconUri IconMimeType",
    "up": "ProgramStartTime ProgramDuration ProgramIconCount ProgramListLength",
    "ip": "IconWidth IconHeight IconDataSize",
    "ppu": "ProgramIcon ProgramListElement",
    "iso": "GuideGetPresentProgram", "ipio": "GuideGetProgram", "issuo": "GuideGetProgramItem",
    "isuuo": "GuideGetProgramList", "isio": "GuideGetServiceFragment",
    "isuuio": "GuideGetScheduleFragment GuideGetContentFragment",
    "issi": "GuideSaveContentFragment GuideSaveScheduleFragment GuideSaveServiceFragment",
    "Uiepp": "EventsSubscribe", "iU": "EventsUnsubscribe"})


class GuideError(Exception):
    """Why an operation failed. `reason` is its number in FCESGGuide.h; `error_name` and
    `error_text` are those of the D-Bus error, empty if there was none."""
    reason, error_name, error_text = 0, "", ""


_errors = [GuideError, *(
    type(name, (GuideError,), {"reason": reason, "__module__": __name__,
                               "__doc__": _esg.FCESGReasonText(reason).decode()})
    for reason, name in enumerate(("NotFound", "NoBus", "NoService", "NoAnswer", "AccessDenied",
                                   "TooLarge", "ServiceError", "Unreadable"), 1))]
NotFound, NoBus, NoService, NoAnswer, AccessDenied, TooLarge, ServiceError, Unreadable = _errors[1:]


def _check(done):
    if not done:
        error = _errors[_esg.FCESGGuideLastReason()]
        said = [_esg.FCESGGuideLastErrorName(), _esg.FCESGGuideLastErrorText()]
        name, text = (each.decode("utf-8", "replace") for each in said)
        raised = error(": ".join(filter(None, (error.__doc__.rstrip("."), name, text))))
        raised.error_name, raised.error_text = name, text
        raise raised


def _call(name, *arguments):
    arguments = [each.encode("utf-8", "surrogateescape") if isinstance(each, str) else each
                 for each in arguments]
    if any(isinstance(each, bytes) and b"\0" in each for each in arguments):
        raise ValueError("The text contains a zero byte.")
    _check(getattr(_esg, "FCESGGuide" + name)(*arguments))


# Times on the bus are NTP seconds in 32 bits, which restart at 0 in 2036.
_EPOCH = datetime.datetime(1970, 1, 1, tzinfo=datetime.timezone.utc)
_SECOND, _NTP, _WRAP = datetime.timedelta(seconds=1), 2208988800, 1 << 32


def _to_range(start, end):
    """Start and duration of the range that covers both times."""
    if None in (start.utcoffset(), end.utcoffset()):
        raise ValueError("The time has no time zone.")
    first, after = (start - _EPOCH) // _SECOND, -((_EPOCH - end) // _SECOND)
    if not 0 <= first <= after < _WRAP:
        raise ValueError("The times are in the wrong order, before 1970 or after 2105.")
    return (first + _NTP) % _WRAP, after - first


# One picture of a programme. Sizes are in pixels and bytes.
Icon = collections.namedtuple("Icon", "uri mime_type width height data_size")


@dataclasses.dataclass(frozen=True)
class Program:
    """One programme. Times are in UTC; see datetime.astimezone()."""
    service_id: str
    event_id: str
    title: str
    synopsis: str
    genre: str
    start: datetime.datetime
    duration: datetime.timedelta
    icons: tuple  # of Icon
    _record: _Handle = dataclasses.field(repr=False, compare=False)

    @property
    def end(self):
        """The time at which the programme ends."""
        return self.start + self.duration


def _ask(name, dispose, *arguments):
    handle = _Handle()
    _call("Get" + name, *arguments, ctypes.byref(handle))
    weakref.finalize(handle, dispose, handle.value)
    return handle


def _to_program(record):
    def text(part, errors="replace", of=record):
        return getattr(_esg, "FCESG" + part)(of).decode("utf-8", errors)
    icons = (_esg.FCESGProgramIcon(record, i) for i in range(_esg.FCESGProgramIconCount(record)))
    return Program(
        service_id=text("ProgramServiceID", "surrogateescape"),
        event_id=text("ProgramEventID", "surrogateescape"),
        title=text("ProgramTitle"), synopsis=text("ProgramSynopsis"), genre=text("ProgramGenre"),
        start=_EPOCH + (_esg.FCESGProgramStartTime(record) - _NTP) % _WRAP * _SECOND,
        duration=_esg.FCESGProgramDuration(record) * _SECOND,
        icons=tuple(Icon(text("IconUri", of=icon), text("IconMimeType", of=icon),
                         _esg.FCESGIconWidth(icon), _esg.FCESGIconHeight(icon),
                         _esg.FCESGIconDataSize(icon)) for icon in icons),
        _record=record)


def _ask_program(name, *arguments):
    return _to_program(_ask(name, _esg.FCESGProgramDispose, *arguments))


def _ask_fragment(name, *arguments):
    return ctypes.string_at(_ask(name + "Fragment", _esg.FCESGTextDispose, *arguments))


def iterate():
    """Runs one iteration of the default GLib main context: waits for something to dispatch, and
    dispatches it. For a program without its own main loop, on one thread. A signal ends the wait."""
    if threading.current_thread() is not threading.main_thread():
        return _glib.g_main_context_iteration(None, True)
    if not _pipe:
        _pipe[:] = os.pipe2(os.O_NONBLOCK | os.O_CLOEXEC)
    _woken.fd, _woken.revents = _pipe[0], 0
    before = signal.set_wakeup_fd(_pipe[1], warn_on_full_buffer=False)
    try:  # a signal may end this anywhere, so the descriptors that GLib polls must stay valid
        _glib.g_main_context_add_poll(None, _woken, 0)
        return _glib.g_main_context_iteration(None, True)
    finally:
        signal.set_wakeup_fd(before)
        _glib.g_main_context_remove_poll(None, _woken)
        if _woken.revents:
            os.read(_pipe[0], 4096)


_woken, _pipe = _PollFD(-1, select.POLLIN), []
# An event of the service. Its three integers are all -1 if it carries none.
Event = collections.namedtuple("Event", "number params")
_handlers = {}  # by the key of Events: the receiver of an event, and what it keeps alive


@_EventFunction
def _on_event(number, param1, param2, param3, key):
    if key in _handlers:
        _handlers[key][0](Event(number, (param1, param2, param3)))


class Events:
    """A subscription; see Guide.events(). It ends with close() or at the end of its `with` block.
    Without a callback, it also ends with a `for` loop over it, or when nothing refers to it."""

    def __init__(self, numbers, callback=None):
        self._identifiers = []
        self._waiting = collections.deque()
        if not numbers:
            raise ValueError("Pass at least one number of an event.")
        _handlers[id(self)] = (callback, self) if callback else (self._waiting.append, None)
        try:
            for number in dict.fromkeys(numbers):
                identifier = _esg.FCESGEventsSubscribe(number, _on_event, id(self), None)
                _check(identifier)
                self._identifiers.append(identifier)
        except BaseException:
            self.close()
            raise

    def close(self):
        """Ends the subscription, and a `for` loop over it."""
        _handlers.pop(id(self), None)
        self._waiting.clear()
        while self._identifiers:
            _esg.FCESGEventsUnsubscribe(self._identifiers.pop())

    __del__ = close

    def __enter__(self):
        return self

    def __exit__(self, *_exception):
        self.close()

    def __iter__(self):
        try:
            while self._identifiers:
                if self._waiting:
                    yield self._waiting.popleft()
                else:
                    iterate()
        finally:
            self.close()


class Guide:
    """The guide. Every failure raises a GuideError, also "nothing found". Times are datetimes with
    a time zone; a fragment is its XML text as bytes; `bb` is passed on to the service."""

    def present(self, service_id):
        """The programme that is on now on a broadcast service."""
        return _ask_program("PresentProgram", service_id)

    def next(self, program):
        """The programme after another."""
        return _ask_program("Program", program._record, 1)

    def previous(self, program):
        """The programme before another."""
        return _ask_program("Program", program._record, -1)

    def item(self, service_id, content_id, time):
        """The programme that shows a content on a broadcast service at a time."""
        return _ask_program("ProgramItem", service_id, content_id, _to_range(time, time)[0])

    def list(self, service_id, start, end):
        """The programmes of a broadcast service that overlap `start` to `end`, in order of start."""
        programs = _ask("ProgramList", _esg.FCESGProgramListDispose, service_id,
                        *_to_range(start, end))
        elements = [_Handle(_esg.FCESGProgramListElement(programs, index))
                    for index in range(_esg.FCESGProgramListLength(programs))]
        for element in elements:
            element.owner = programs
        return sorted(map(_to_program, elements), key=lambda program: program.start)

    def schedule(self, service_id, start, end, bb=False):
        """The schedule fragment of a broadcast service for a time range."""
        return _ask_fragment("Schedule", service_id, *_to_range(start, end), bb)

    def service(self, service_id, bb=False):
        """The service fragment of a broadcast service."""
        return _ask_fragment("Service", service_id, bb)

    def content(self, service_id, start, end, bb=False):
        """The content fragment that a broadcast service shows in a time range."""
        return _ask_fragment("Content", service_id, *_to_range(start, end), bb)

    def save_schedule(self, path, service_id, bb=False):
        """Asks the guide service, which opens the path, to save a schedule fragment."""
        _call("SaveScheduleFragment", os.fsencode(path), service_id, bb)

    def save_service(self, path, service_id, bb=False):
        """Asks the guide service to save a service fragment."""
        _call("SaveServiceFragment", os.fsencode(path), service_id, bb)

    def save_content(self, path, service_id, bb=False):
        """Asks the guide service to save a content fragment."""
        _call("SaveContentFragment", os.fsencode(path), service_id, bb)

    def events(self, *numbers, callback=None):
        """Subscribes to numbered events. Without a callback, a `for` loop over the result waits for
        them and runs the default GLib main context while it waits. With one, callback(event) is
        called when that context runs, on its thread, until close(). An exception that leaves the
        callback is printed and ignored."""
        return Events(numbers, callback)


guide = Guide()
