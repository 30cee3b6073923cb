// A client that has nothing of ours but the proto files: @grpc/grpc-js and @grpc/proto-loader. Does
// what lines on its standard input say; tests/programs/foreign.py has the protocol.
//
// Looks for packages in $VARNIC_JS_DIR, and for proto files in $VARNIC_PROTO_ROOTS, parted by colons.
'use strict';

const fs = require('fs');
const readline = require('readline');
const {createRequire} = require('module');

const load = createRequire(`${process.env.VARNIC_JS_DIR}/package.json`);
const grpc = load('@grpc/grpc-js');
const protoLoader = load('@grpc/proto-loader');

const files = ['rpc/profile/profile.proto', 'interop/test.proto', 'download.proto'];
const services = protoLoader.loadSync(files, {
  includeDirs: process.env.VARNIC_PROTO_ROOTS.split(':'),
  longs: String,
  oneofs: true,
});
const stubs = grpc.loadPackageDefinition(services);

const write = (event) => process.stdout.write(JSON.stringify(event) + '\n');
const isBinary = (key) => key.endsWith('-bin');
const asIs = (bytes) => bytes;

function metadataToJson(metadata) {
  return Object.keys(metadata.getMap()).flatMap((key) => metadata.get(key).map(
      (value) => [key, isBinary(key) ? value.toString('base64') : value]));
}

function metadataFromJson(list) {
  const metadata = new grpc.Metadata();
  for (const [key, value] of list) {
    metadata.add(key, isBinary(key) ? Buffer.from(value, 'base64') : value);
  }
  return metadata;
}

function connect({target, ca, certificate, key, gzip, options: more}) {
  const file = (name) => (name === null ? null : fs.readFileSync(name));
  const credentials = ca === null ? grpc.credentials.createInsecure()
      : grpc.credentials.createSsl(file(ca), file(key), file(certificate));
  const options = {'grpc.use_local_subchannel_pool': 1, ...more};
  if (gzip) options['grpc.default_compression_algorithm'] = grpc.compressionAlgorithms.gzip;
  return new grpc.Client(target, credentials, options);
}

// How to begin the call, on the stub or without one, and what makes messages of bytes and bytes of
// messages.
function methodOf(client, {method, raw}) {
  if (raw) {
    return {
      unary: (...rest) => client.makeUnaryRequest(method, asIs, asIs, ...rest),
      stream: (...rest) => client.makeBidiStreamRequest(method, asIs, asIs, ...rest),
      toRequest: asIs,
      toBytes: asIs,
    };
  }
  const [, service, name] = method.split('/');
  const Stub = service.split('.').reduce((object, part) => object[part], stubs);
  const stub = new Stub('unused', null, {channelOverride: client.getChannel()});
  return {
    unary: (...rest) => stub[name](...rest),
    stream: (...rest) => stub[name](...rest),
    toRequest: services[service][name].requestDeserialize,
    toBytes: services[service][name].responseSerialize,
  };
}

class Call {
  constructor(client, command) {
    this.number = command.call;
    this.method = methodOf(client, command);
    this.unary = command.unary;
    this.metadata = metadataFromJson(command.metadata);
    this.options = {deadline: Date.now() + command.seconds * 1000};
    if (this.unary) return;
    this.call = this.method.stream(this.metadata, this.options);
    // Behind the last message, if there may be more of them.
    this.call.on('end', () => this.atEnd());
    this.listen();
    if (command.first !== null) this.send(Buffer.from(command.first, 'base64'));
    if (command.read) {
      this.read();
    } else {
      // It stops at the messages that its own buffer holds only when it has begun to fill it.
      this.call.read(0);
    }
  }

  listen() {
    this.call.on('metadata', (metadata) => this.write({metadata: metadataToJson(metadata)}));
    this.call.on('error', () => {});  // The status says it.
    this.call.on('status', (status) => {
      this.status = status;
      if (!this.unary && status.code !== grpc.status.OK) this.atEnd();
    });
  }

  write(event) {
    write({call: this.number, ...event});
  }

  send(bytes) {
    const request = this.method.toRequest(bytes);
    if (!this.unary) return this.call.write(request);
    this.call = this.method.unary(request, this.metadata, this.options, (error, response) => {
      if (!error) this.writeMessage(response);
      setImmediate(() => this.atEnd());  // The status comes in between.
    });
    this.listen();
  }

  read() {
    this.call.on('data', (message) => this.writeMessage(message));
  }

  writeMessage(message) {
    this.write({message: this.method.toBytes(message).toString('base64')});
  }

  halfClose() {
    if (!this.unary) this.call.end();
  }

  cancel() {
    this.call.cancel();
  }

  atEnd() {
    const {status} = this;
    if (status === undefined || this.ended) return;
    this.ended = true;
    const metadata = metadataToJson(status.metadata);
    this.write({code: status.code, text: status.details, metadata});
  }
}

const channels = new Map();
const calls = new Map();

const actions = {
  connect: (command) => channels.set(command.channel, connect(command)),
  close: (command) => channels.get(command.channel).close(),
  open: (command) => calls.set(command.call, new Call(channels.get(command.channel), command)),
  send: (command) => calls.get(command.call).send(Buffer.from(command.message, 'base64')),
  half_close: (command) => calls.get(command.call).halfClose(),
  read: (command) => calls.get(command.call).read(),
  cancel: (command) => calls.get(command.call).cancel(),
};

readline.createInterface({input: process.stdin})
    .on('line', (line) => {
      const command = JSON.parse(line);
      actions[command.do](command);
    })
    .on('close', () => process.exit(0));
