"""Reading and writing the tables of a kelpd server, and its data files, as numpy arrays.

    import kelp
    table = kelp.connect("kelp://localhost:8642").table("shop.public.orders")
    rows = table.scan(columns=["id", "qty"], where="qty > 10 and note is null", jobs=2).read()
    rows["qty"].to_numpy(), rows.to_pandas()

    kelp.write_table("new.cvn", {"id": [1, 2], "note": ["a", None]}, schema="id int64, note cstr -z")
    kelp.read_table("new.cvn")
"""

from .client import Connection, FileStat, Meta, RemoteTable, Scan, connect
from .errors import KelpError
from .files import DataFile, FileInfo, inspect, read_table
from .table import Column, Table
from .types import Field, Type
from .writer import write_table

__all__ = ["Column", "Connection", "DataFile", "Field", "FileInfo", "FileStat", "KelpError", "Meta", "RemoteTable",
           "Scan", "Table", "Type", "connect", "inspect", "read_table", "write_table"]
__version__ = "1.0.0"
