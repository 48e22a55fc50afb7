"""What a terminal shows of what the tool sends to it: the few control sequences that the table uses."""
import re

TOKEN = re.compile(r"\x1b\[(\??)([0-9;]*)([A-Za-z])|([^\x1b])", re.S)


class Screen:
    """Two screens, a cursor, no scrolling; `resize` keeps the text."""

    def __init__(self, rows=24, columns=80):
        self.cells, self.row, self.column, self.alternate, self.strange = {}, 0, 0, False, []
        self.rows, self.columns, self.most = rows, columns, (rows, columns)

    def resize(self, rows, columns):
        self.rows, self.columns = rows, columns
        self.most = max(self.most[0], rows), max(self.most[1], columns)

    def feed(self, text):
        for private, numbers, command, character in TOKEN.findall(text):
            if character:
                self.put(character)
            elif command == "H":
                self.row, self.column = (int(n) - 1 for n in numbers.split(";"))
            elif command == "K":
                self.cells = {p: c for p, c in self.cells.items() if p[0] != self.row or p[1] < self.column}
            elif command == "J":
                self.cells = {}
            elif private and numbers == "1049":
                self.alternate, self.cells = command == "h", {}
            elif command not in "mhl":
                self.strange.append((private, numbers, command))

    def put(self, character):
        if character == "\r":
            self.column = 0
        elif character == "\n":
            self.row += 1
        else:
            # What the program sends while the size changes may still fit the old one.
            if self.alternate and (self.row >= self.most[0] or self.column >= self.most[1]):
                self.strange.append((self.row, self.column, character))
            self.cells[self.row, self.column] = character
            self.column += 1

    def lines(self):
        return ["".join(self.cells.get((row, column), " ") for column in range(self.columns)).rstrip()
                for row in range(self.rows)]
