// Calls the engine from Node.js for Windows through the vtables of its objects:
//
//     npm install koffi
//     node cut_in_half.mjs IN.ogg OUT.wav
//
// Needs the registered engine in Node's bitness. Node does not support COM. koffi is one of several
// packages that call native functions.
import koffi from 'koffi';
import { setTimeout as sleep } from 'node:timers/promises';

// Vtable indexes of the used methods, counted from the interface's own first method.
const interfaces = {
  IAudioPool: {
    iid: '49FAFF9E-BF19-4FFC-8414-A043D0FB4C45',
    CreateLastReader: [4, '_Out_ void **reader'],
  },
  IAudioReader: {
    iid: '86B3DC4E-2401-48A9-A393-3D946F030260',
    GetFormat: [1, '_Out_ int32_t *rate, _Out_ int16_t *channels'],
    GetSampleCount: [2, '_Out_ int64_t *frames'],
  },
  IAudioWriter: {
    iid: '059AD7E3-685C-4049-AAE3-E91427840565',
  },
  IImportFilter: {
    iid: 'AF905BC1-1608-4C54-8654-EAFC2E81686A',
    Initialize: [1, 'void *file_name, void *writer'],
  },
  ICoreTask: {
    iid: 'E2911F9F-7486-4C61-AF14-ACEA286A878A',
    Start: [0, ''],
    QueryIsTaskRunning: [2, '_Out_ int16_t *running'],
  },
  IEditedAudio: {
    iid: 'FC8DCAF9-FDE2-49D2-A5B3-28C00F2BD8FE',
    ReadWaveplot: [0, 'int64_t begin, int64_t end, void *peaks'],
    AppendSegment: [7, 'void *source, int64_t begin, int64_t end'],
    Delete: [10, 'int64_t begin, int64_t end'],
  },
  IExportFilter: {
    iid: '954699CD-EEFE-46D8-A102-73014CAED9B4',
    Initialize: [1, 'void *file_name, void *reader'],
  },
};
// All these interfaces are dual, so the seven methods of IUnknown and IDispatch come first.
const FIRST_OWN = 7;
const RELEASE = 2;

const ole32 = koffi.load('ole32.dll');
const oleaut32 = koffi.load('oleaut32.dll');
const CoInitializeEx = ole32.func('int32_t __stdcall CoInitializeEx(void *reserved, uint32_t model)');
const CLSIDFromProgID = ole32.func('int32_t __stdcall CLSIDFromProgID(str16 name, void *clsid)');
const CoCreateInstance = ole32.func(
  'int32_t __stdcall CoCreateInstance(void *clsid, void *outer, uint32_t context, void *iid, _Out_ void **object)');
const SysAllocString = oleaut32.func('void * __stdcall SysAllocString(str16 text)');
const SysFreeString = oleaut32.func('void __stdcall SysFreeString(void *text)');
const SafeArrayCreateVector = oleaut32.func(
  'void * __stdcall SafeArrayCreateVector(uint16_t type, int32_t first, uint32_t count)');
const SafeArrayAccessData = oleaut32.func('int32_t __stdcall SafeArrayAccessData(void *array, _Out_ void **data)');
const SafeArrayUnaccessData = oleaut32.func('int32_t __stdcall SafeArrayUnaccessData(void *array)');
const SafeArrayDestroy = oleaut32.func('int32_t __stdcall SafeArrayDestroy(void *array)');
const VT_R4 = 4;

function check(hr) {
  if (hr < 0) throw new Error(`HRESULT 0x${(hr >>> 0).toString(16)}`);
  return hr;
}

// The first three fields of a GUID are little-endian in memory.
function guid(text) {
  const bytes = Buffer.from(text.replaceAll('-', ''), 'hex');
  for (const [begin, end] of [[0, 4], [4, 6], [6, 8]]) bytes.subarray(begin, end).reverse();
  return bytes;
}

function call(object, place, prototype, ...parameters) {
  const table = koffi.decode(object, 'void *');
  const method = koffi.decode(table, place * koffi.sizeof('void *'), 'void *');
  return koffi.call(method, prototype, object, ...parameters);
}

const queryInterface = koffi.proto('int32_t __stdcall QueryInterface(void *self, void *iid, _Out_ void **object)');
const release = koffi.proto('uint32_t __stdcall Release(void *self)');

// An interface of an object, with its methods as functions.
class Face {
  constructor(name, pointer) {
    this.pointer = pointer;
    for (const [method, [place, parameters]] of Object.entries(interfaces[name]).filter(([key]) => key !== 'iid')) {
      const all = parameters ? `void *self, ${parameters}` : 'void *self';
      const prototype = koffi.proto(`int32_t __stdcall ${name}_${method}_${Face.made++}(${all})`);
      this[method] = (...given) => check(call(pointer, FIRST_OWN + place, prototype, ...given));
    }
  }
  static made = 0;

  as(name) {
    const object = [null];
    check(call(this.pointer, 0, queryInterface, guid(interfaces[name].iid), object));
    return new Face(name, object[0]);
  }
  release() {
    call(this.pointer, RELEASE, release);
  }
}

function create(progId, name) {
  const clsid = Buffer.alloc(16);
  check(CLSIDFromProgID(progId, clsid));
  const object = [null];
  check(CoCreateInstance(clsid, null, 1 /* CLSCTX_INPROC_SERVER */, guid(interfaces[name].iid), object));
  return new Face(name, object[0]);
}

function withText(text, use) {
  const bstr = SysAllocString(text);
  try {
    return use(bstr);
  } finally {
    SysFreeString(bstr);
  }
}

async function run(filter) {
  const task = filter.as('ICoreTask');
  task.Start();
  const running = [-1];
  for (;;) {
    task.QueryIsTaskRunning(running);
    if (running[0] === 0) break;
    await sleep(10);
  }
  task.release();
}

// Returns the lowest and highest sample of each column and channel.
function overview(document, frames, columns, channels) {
  const peaks = SafeArrayCreateVector(VT_R4, 0, columns * channels * 2);
  try {
    document.ReadWaveplot(0, frames, peaks);
    const data = [null];
    check(SafeArrayAccessData(peaks, data));
    try {
      return Array.from(koffi.decode(data[0], koffi.array('float', columns * channels * 2)));
    } finally {
      SafeArrayUnaccessData(peaks);
    }
  } finally {
    SafeArrayDestroy(peaks);
  }
}

async function cutInHalf(source, target) {
  const pool = create('Marlinda.AudioPool', 'IAudioPool');
  const importer = create('Marlinda.OggImport', 'IImportFilter');
  const writer = pool.as('IAudioWriter');
  withText(source, (text) => importer.Initialize(text, writer.pointer));
  await run(importer);

  const taken = [null];
  pool.CreateLastReader(taken);
  if (taken[0] === null) throw new Error(`${source}: nothing could be decoded`);
  const take = new Face('IAudioReader', taken[0]);
  const [rate, channels, count] = [[0], [0], [0]];
  take.GetFormat(rate, channels);
  take.GetSampleCount(count);
  const frames = Number(count[0]);
  const half = Math.floor(frames / 2);

  const document = create('Marlinda.EditedAudio', 'IEditedAudio');
  document.AppendSegment(take.pointer, 0, frames);
  document.Delete(half, frames);
  const peaks = overview(document, half, 8, channels[0]);
  const width = 2 * channels[0];
  for (let column = 0; column < 8; ++column) {
    const loudest = Math.max(...peaks.slice(column * width, (column + 1) * width).map(Math.abs));
    console.log('#'.repeat(Math.round(60 * Math.min(loudest, 1))));
  }

  const exporter = create('Marlinda.WavExportFilter', 'IExportFilter');
  const reader = document.as('IAudioReader');
  withText(target, (text) => exporter.Initialize(text, reader.pointer));
  await run(exporter);
  console.log(`${half} of ${frames} frames written`);
  for (const face of [reader, exporter, document, take, writer, importer, pool]) face.release();
}

if (process.argv.length !== 4) {
  console.error('usage: node cut_in_half.mjs IN.ogg OUT.wav');
  process.exit(2);
}
check(CoInitializeEx(null, 2 /* COINIT_APARTMENTTHREADED */));
await cutInHalf(process.argv[2], process.argv[3]);
