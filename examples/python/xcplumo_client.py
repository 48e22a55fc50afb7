"""A client of `xcplumo-cli serve`, in one file of the standard library: names in, numbers out.

    from xcplumo_client import Client
    ecu = Client("http://127.0.0.1:48123/#token=...")     # the address that `serve` printed
    ecu["cal_gain"]                                       # 1.0
    ecu["cal_gain"] = 1.5                                 # limits are checked, and it is read back
    ecu.measure(["engine_speed", "wave@0"])
    for time, values in ecu.records(["engine_speed"]):    # {"engine_speed": 950.0}
        ...
"""
import http.client
import json
from urllib.parse import parse_qs, quote, urlencode, urlsplit


class EcuError(Exception):
    """What the server or the ECU refused; `code` as in the JSON output of the program."""

    def __init__(self, error):
        super().__init__(": ".join(filter(None, (error.get("name"), error.get("message")))))
        self.code, self.hint = error.get("code"), error.get("hint", "")


class Client:
    """One ECU of a server. A thread has a client of its own; streams have connections of their own."""

    def __init__(self, address, ecu=None, timeout=30.0):
        parts = urlsplit(address)
        self._host, self._port, self._timeout = parts.hostname, parts.port, timeout
        self._token = parse_qs(parts.fragment)["token"][0]
        self._connection = None
        self.ecu = ecu or self.ask("GET", "/v1")["ecus"][0]["name"]
        self._base = f"/v1/ecus/{quote(self.ecu, safe='')}"

    def close(self):
        if self._connection is not None:
            self._connection.close()
            self._connection = None

    # Values

    def __getitem__(self, name):
        """The physical number, the text of a value that has one, or nested lists of a curve or map."""
        return self._plain(self.ask("GET", f"{self._base}/values/{quote(name, safe='')}"))

    def __setitem__(self, name, value):
        self.ask("PUT", f"{self._base}/values/{quote(name, safe='')}", {"value": value})

    def read(self, names):
        """{name: value or EcuError}, in one request."""
        told = self.ask("POST", f"{self._base}/values/read", {"names": list(names)})["values"]
        return {one["name"]: EcuError(one["error"]) if "error" in one else self._plain(one) for one in told}

    def write(self, values):
        """{name: value}; the first one that fails is raised, after all were tried."""
        wishes = [{"name": name, "value": value} for name, value in values.items()]
        self.ask("POST", f"{self._base}/values/write", {"values": wishes})

    def objects(self, pattern="", **search):
        """What the A2L has; `kind`, `group`, `function`."""
        return self.ask("GET", f"{self._base}/objects?{urlencode({'pattern': pattern, **search})}")["objects"]

    def describe(self, name):
        return self.ask("GET", f"{self._base}/objects/{quote(name, safe='')}")

    # Measurement and recordings

    def state(self):
        return self.ask("GET", f"{self._base}/state")

    def plan(self, signals):
        return self.ask("POST", f"{self._base}/measurement/plan", {"signals": list(signals)})

    def measure(self, signals):
        """Starts a measurement, or goes on with other signals."""
        return self.ask("PUT", f"{self._base}/measurement", {"signals": list(signals)})

    def stop(self):
        self.ask("DELETE", f"{self._base}/measurement")

    def record(self, name):
        return self.ask("PUT", f"{self._base}/recording", {"name": name})

    def end_recording(self):
        self.ask("DELETE", f"{self._base}/recording")

    def mark(self, text):
        self.ask("POST", f"{self._base}/recording/marks", {"text": text})

    def records(self, signals=(), missed=None):
        """(seconds since the start of the measurement, {name: number}) of each record, for ever.

        `missed` is called with the number of records that this client did not take in time.
        """
        columns = {}
        for event, data in self.events(signals):
            if event == "signals":
                columns = {}
                for signal in data["signals"]:
                    columns.setdefault(signal["group"], []).append(signal["name"])
            elif event == "missed" and missed is not None:
                missed(data["missed"])
            elif event == "records":
                for record in data["records"]:
                    yield record["tNs"] / 1e9, dict(zip(columns[record["group"]], record["values"]))

    def events(self, signals=(), window_ms=0):
        """(event, data) as the server sends them; with a window [least, greatest, last] of each signal."""
        query = {"signals": ",".join(signals)}
        if window_ms:
            query["windowMs"] = window_ms
        connection = http.client.HTTPConnection(self._host, self._port, timeout=self._timeout)
        try:
            connection.request("GET", f"{self._base}/stream?{urlencode(query)}", headers=self._headers())
            answer = connection.getresponse()
            if answer.status != 200:
                raise EcuError(json.loads(answer.read())["error"])
            event = ""
            for line in answer:
                key, _, text = line.decode().rstrip("\n").partition(": ")
                if key == "event":
                    event = text
                elif key == "data":
                    yield event, json.loads(text)
        finally:
            connection.close()

    # The way there

    def ask(self, method, path, body=None):
        """The JSON of an answer. A kept connection that the server closed meanwhile is opened again."""
        fresh = self._connection is None
        if fresh:
            self._connection = http.client.HTTPConnection(self._host, self._port, timeout=self._timeout)
        try:
            self._connection.request(method, path, None if body is None else json.dumps(body), self._headers())
            answer = self._connection.getresponse()
            told = json.loads(answer.read())
        except (http.client.RemoteDisconnected, BrokenPipeError, ConnectionResetError):
            self.close()
            # What writes is not repeated: it may have been done.
            if fresh or method != "GET":
                raise
            return self.ask(method, path, body)
        except Exception:
            self.close()
            raise
        errors = [told] + told.get("values", []) if answer.status >= 400 else []
        for one in errors:
            if isinstance(one, dict) and "error" in one:
                raise EcuError({"name": one.get("name"), **one["error"]})
        return told

    def _headers(self):
        return {"Authorization": f"Bearer {self._token}", "Content-Type": "application/json"}

    @staticmethod
    def _plain(told):
        value = told["value"]
        if isinstance(value, dict):
            physical = value.get("physical")
            return value.get("text") if physical is None else physical
        return value
