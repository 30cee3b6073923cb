// A client of a browser host as somebody else writes it: @grpc/grpc-js, @grpc/proto-loader, and the
// host's proto files. Does what lines on its standard input say; browser_host.py has the protocol.
//
//   node client.js TARGET
//
// Looks for packages in $VARNIC_JS_DIR, and for proto files in $VARNIC_PROTO_ROOT.
'use strict';

const readline = require('readline');
const {createRequire} = require('module');

const load = createRequire(`${process.env.VARNIC_JS_DIR}/package.json`);
const grpc = load('@grpc/grpc-js');
const protoLoader = load('@grpc/proto-loader');

const {rpc} = grpc.loadPackageDefinition(protoLoader.loadSync(
    ['rpc/profile/profile.proto', 'rpc/host/browser_host.proto'],
    {includeDirs: [process.env.VARNIC_PROTO_ROOT], defaults: true, enums: String, longs: String,
      oneofs: true}));

const credentials = grpc.credentials.createInsecure();
const stubs = {
  Profile: new rpc.Profile(process.argv[2], credentials),
  BrowserHost: new rpc.BrowserHost(process.argv[2], credentials),
};
const streams = new Map();

const write = (event) => process.stdout.write(JSON.stringify(event) + '\n');
const writeEnd = (call, {code, details}) => write({call, code, text: details});

const actions = {
  call: ({call, service, method, request, seconds}) => {
    const deadline = Date.now() + seconds * 1000;
    stubs[service][method](request, {deadline}, (error, response) => {
      if (error) return writeEnd(call, error);
      write({call, message: response});
      writeEnd(call, {code: grpc.status.OK, details: ''});
    });
  },
  open: ({call, service, method}) => {
    const stream = stubs[service][method]();
    stream.on('data', (message) => write({call, message}));
    stream.on('error', () => {});  // The status says it.
    stream.on('status', (status) => setImmediate(() => writeEnd(call, status)));
    streams.set(call, stream);
  },
  send: ({call, message}) => streams.get(call).write(message),
  cancel: ({call}) => streams.get(call).cancel(),
};

readline.createInterface({input: process.stdin})
    .on('line', (line) => {
      const command = JSON.parse(line);
      actions[command.do](command);
    })
    .on('close', () => process.exit(0));
