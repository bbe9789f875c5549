"""What Dask's processes are told of pieces and arrays, where dask.distributed is in use.

Between processes of one machine a descriptor goes; to another machine the bytes do, as frames of
Dask's own protocol. Imported when distributed is there, never by itself.
"""
from __future__ import annotations

import pickle
from typing import Any, Dict, List, Optional, Set, Tuple

from dask.sizeof import sizeof
from distributed.client import _get_global_client
from distributed.comm.addressing import get_address_host
from distributed.protocol import dask_deserialize, dask_serialize
from distributed.worker import Worker

from ._array import Array
from ._config import config
from ._handover import by_bytes
from ._piece import Piece

# The part of a worker's memory limit that its cache of views may take: what is mapped counts.
_CACHE_PART = 4


def _host(address: str) -> str:
    return "" if address.startswith("inproc") else get_address_host(address)


def _is_here(context: Optional[Dict[str, Any]]) -> bool:
    """Whether a message stays on this machine. Without a context it goes to a disk, say, from where
    it may come back when nothing keeps the memory any more."""
    if context is None:
        return False
    ends = {_host(context[end]["address"]) for end in ("sender", "recipient")}
    return len(ends) == 1 and not workers_elsewhere(ends)


def workers_elsewhere(known: Set[str] = frozenset()) -> bool:  # type: ignore[assignment]
    """Whether this process's client has workers on other machines than its scheduler's, to which
    the scheduler would pass on what it gets."""
    client = _get_global_client()
    if client is None or client.scheduler is None:
        return False
    here = known | {"127.0.0.1", "", _host(client.scheduler.address)}
    workers = client._scheduler_identity.get("workers", {})
    return any(_host(address) not in here for address in workers)


@dask_serialize.register((Piece, Array))
def _serialize(value: Any, context: Optional[Dict[str, Any]] = None) -> Tuple[Dict, List[Any]]:
    if _is_here(context):
        return {}, [pickle.dumps(value, protocol=4)]
    buffers: List[Any] = []
    with by_bytes():
        text = pickle.dumps(value, protocol=5, buffer_callback=buffers.append)
    return {}, [text, *(buffer.raw() for buffer in buffers)]


@dask_deserialize.register((Piece, Array))
def _deserialize(header: Dict, frames: List[Any]) -> Any:
    _fit_cache()
    return pickle.loads(frames[0], buffers=frames[1:])


@sizeof.register((Piece, Array))
def _sizeof(value: Any) -> int:
    return 1000  # of the process; the pager keeps the rest where Dask needn't spill it


def _fit_cache() -> None:
    """A worker's views in the cache count as its memory, for which it would be paused or ended."""
    for worker in Worker._instances:
        limit = getattr(worker.memory_manager, "memory_limit", None)
        most = (limit or 0) // _CACHE_PART >> 20
        if most and config.cache_mb > most:
            config.cache_mb = most
