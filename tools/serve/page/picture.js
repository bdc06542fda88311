// A JPEG on a canvas.

export async function draw(canvas, about, jpeg) {
  const image = await createImageBitmap(new Blob([jpeg], {type: 'image/jpeg'}));
  if (canvas.width !== image.width || canvas.height !== image.height) {
    canvas.width = image.width;
    canvas.height = image.height;
  }
  canvas.getContext('2d').drawImage(image, 0, 0);
  image.close();
  canvas.dataset.pictures = 1 + Number(canvas.dataset.pictures || 0);
}
